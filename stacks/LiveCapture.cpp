#include "stacks/LiveCapture.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

#include "process/ProcFiles.h"
#include "stacks/memory/HeldThreads.h"
#include "stacks/memory/Mappings.h"
#include "stacks/memory/StackMemory.h"
#include "stacks/python/PythonReader.h"

namespace Zendrik::Stacks {

namespace {

using Plexum3::Base::readProcFile;
using Plexum3::Base::statusField;
using Plexum3::Base::threadName;
using std::chrono::steady_clock;

constexpr auto stopLimit = std::chrono::milliseconds(200);
constexpr auto readLimit = std::chrono::seconds(5);

LiveCapture captureNow(pid_t pid) {
    LiveCapture live;
    live.capture.pid = pid;
    HeldThreads threads;
    const auto start = steady_clock::now();
    live.failure = threads.hold(pid, stopLimit);
    if (live.failure.empty()) {
        captureContent(threads, live);
    }
    threads.release();
    live.held = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);
    nameThreads(threads, live);
    return live;
}

/// The process of a thread.
pid_t processOf(pid_t tid) {
    const int pid = std::atoi(statusField(readProcFile(tid, "status"), "Tgid").c_str());
    return pid > 0 ? pid : tid;
}

}  // namespace

void captureContent(const HeldThreads& threads, LiveCapture& live) {
    StackCapture& capture = live.capture;
    const std::vector<CapturedThread> crashed = std::move(capture.threads);
    capture.threads = threads.readRegisters();
    for (const CapturedThread& thread : crashed) {
        const auto same =
            std::find_if(capture.threads.begin(), capture.threads.end(),
                         [&thread](const CapturedThread& each) { return each.tid == thread.tid; });
        if (same == capture.threads.end()) {
            capture.threads.push_back(thread);
        } else {
            same->registers = thread.registers;
        }
    }
    // The first thread may have ended before the others, and nothing can be read of it then.
    const pid_t living = capture.threads.empty() ? capture.pid : capture.threads.back().tid;
    const MemoryReader memory = processMemory(living);
    const std::vector<Mapping> mappings = readMappings(living);
    capture.files = findMappedFiles(mappings, memory);
    if (std::string cut = copyStacks(capture, mappings, memory); !cut.empty()) {
        live.notes.push_back(std::move(cut));
    }
    copyCode(capture, mappings, memory);
    if (live.failure.empty()) {
        live.python = readPythonStacks(capture.files, memory);
    }
}

void nameThreads(const HeldThreads& threads, LiveCapture& live) {
    for (CapturedThread& thread : live.capture.threads) {
        thread.name = threadName(thread.tid);
    }
    for (const pid_t tid : threads.unstopped()) {
        live.notes.push_back("Thread " + std::to_string(tid) + " (" + threadName(tid) +
                             ") can't be stopped: it waits for a disk, a server or a driver.");
    }
}

// A thread of its own for each capture: when it ends the kernel lets go of what it still holds.
LiveCapture captureProcess(pid_t pid) {
    std::promise<LiveCapture> promise;
    std::future<LiveCapture> result = promise.get_future();
    std::thread([pid = processOf(pid), promise = std::move(promise)]() mutable {
        promise.set_value(captureNow(pid));
    }).detach();
    if (result.wait_for(readLimit) == std::future_status::timeout) {
        LiveCapture nothing;
        nothing.failure = "didn't let itself be read within 5 s";
        return nothing;
    }
    return result.get();
}

}  // namespace Zendrik::Stacks
