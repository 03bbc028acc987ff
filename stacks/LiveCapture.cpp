#include "stacks/LiveCapture.h"

#include <algorithm>
#include <cstdlib>
#include <future>
#include <thread>
#include <utility>

#include "stacks/HeldThreads.h"
#include "stacks/MappedFiles.h"
#include "stacks/ProcFiles.h"
#include "stacks/PythonReader.h"
#include "stacks/StackMemory.h"

namespace Zendrik::Stacks {

namespace {

using std::chrono::steady_clock;

constexpr auto stopLimit = std::chrono::milliseconds(200);
constexpr auto readLimit = std::chrono::seconds(5);

void copyContent(const HeldThreads& threads, LiveCapture& live) {
    StackCapture& capture = live.capture;
    const MemoryReader memory = processMemory(capture.pid);
    const std::vector<Mapping> mappings = readMappings(capture.pid);
    capture.threads = threads.readRegisters();
    capture.files = findMappedFiles(mappings, memory);
    copyStacks(capture, mappings, memory);
    live.python = readPythonStacks(capture.files, memory);
}

LiveCapture captureNow(pid_t pid) {
    LiveCapture live;
    live.capture.pid = pid;
    HeldThreads threads;
    const auto start = steady_clock::now();
    live.failure = threads.hold(pid, stopLimit);
    if (live.failure.empty()) {
        copyContent(threads, live);
    }
    threads.release();
    live.held = std::chrono::duration_cast<std::chrono::microseconds>(steady_clock::now() - start);
    for (CapturedThread& thread : live.capture.threads) {
        thread.name = threadName(thread.tid);
    }
    for (const pid_t tid : threads.unstopped()) {
        live.notes.push_back("Thread " + std::to_string(tid) + " (" + threadName(tid) +
                             ") can't be stopped: it waits for a disk, a server or a driver.");
    }
    return live;
}

/// The process of a thread.
pid_t processOf(pid_t tid) {
    const int pid = std::atoi(statusField(readProcFile(tid, "status"), "Tgid").c_str());
    return pid > 0 ? pid : tid;
}

}  // namespace

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
