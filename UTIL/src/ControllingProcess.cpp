#include <boost/system/error_code.hpp>
#include <boost/thread/once.hpp>
#include <boost/thread/thread.hpp>
#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "UTIL/src/TavrelBootstrap.h"
#include "process/AllSignalsBlocked.h"
#include "process/ProcessTable.h"
#include "process/StandardStreams.h"

namespace UTIL {

namespace {

using Plexum3::Base::getProcessCreationTime;
using Plexum3::Base::writeWholeLineOrDrop;

constexpr char variable[] = "__TAVREL_CONTROLLING_PROCESS";

std::string quoted(const std::string& text) {
    return '"' + text + '"';
}

// In one piece: the log's lines may come from other threads. Main thread; waits for the reader.
void writeLine(const std::string& line) {
    std::cerr << line + '\n' << std::flush;
}

void obeyControllingProcess() {
    const char* value = std::getenv(variable);
    if (value == nullptr) {
        return;
    }
    std::istringstream stream(value);
    std::int32_t pid = 0;
    char separator = 0;
    boost::chrono::microseconds::rep creationTime = 0;  // since boot
    stream >> pid >> separator >> creationTime;
    if (stream.fail()) {
        writeLine(std::string("[BOOTSTRAP] ERROR: Failed to parse value of internal ") + variable +
                  " environment variable: " + quoted(value));
        return;
    }
    // Never freed: the thread quotes it, and the environment's own text is about to be replaced.
    const char* keptValue = (new std::string(value))->c_str();
    const Plexum3::Base::AllSignalsBlocked blocked;
    boost::thread(WatchControllingProcess, pid, boost::chrono::microseconds(creationTime), variable,
                  keptValue)
        .detach();
}

void publishThisProcess() {
    boost::system::error_code error;
    const boost::chrono::microseconds creationTime = getProcessCreationTime(getpid(), &error);
    std::ostringstream identity;
    identity << getpid() << ';' << creationTime.count();
    if (error) {
        writeLine("[BOOTSTRAP] WARNING: Failed to get process creation time: " +
                  quoted(error.message()));
        return;
    }
    // Without memory for it the children watch this process's own controller.
    static_cast<void>(setenv(variable, identity.str().c_str(), /*overwrite=*/1));
}

// From here to the end of WatchControllingProcess: the watching thread, whose lines wait for
// nobody.

void reportUnwatchableProcess(std::int32_t pid, const boost::system::error_code& error,
                              const std::string& variableName, const char* variableValue) {
    writeWholeLineOrDrop(STDERR_FILENO,
                         "[BOOTSTRAP] ERROR: Failed to determine existence of parent process with "
                         "the given PID " +
                             std::to_string(pid) + ": " + quoted(error.message()) + "\n");
    writeWholeLineOrDrop(STDERR_FILENO,
                         "[BOOTSTRAP] INFO: The PID of the parent process is defined by the value "
                         "of the internal " +
                             variableName + " environment variable: " + quoted(variableValue) +
                             "\n");
}

// A current folder that is deleted keeps the executable from being resolved, and must not keep this
// process alive.
std::string ownName() {
    try {
        return GetExecutableName();
    } catch (const std::runtime_error&) {
        return program_invocation_short_name;
    }
}

void reportTermination(std::int32_t pid) {
    writeWholeLineOrDrop(STDERR_FILENO, "[BOOTSTRAP] WARNING: Parent process not found: PID " +
                                            std::to_string(pid) + ". Terminating this `" +
                                            ownName() + "` process (PID " +
                                            std::to_string(getpid()) + ")...\n");
}

}  // namespace

void StartControllingProcessWatchdog() {
    static boost::once_flag once = BOOST_ONCE_INIT;
    boost::call_once(once, [] {
        obeyControllingProcess();
        publishThisProcess();
    });
}

void WatchControllingProcess(std::int32_t pid, boost::chrono::microseconds expectedCreationTime,
                             const char* variableName, const char* variableValue) {
    constexpr boost::chrono::milliseconds period(500);
    boost::system::error_code error;
    auto creationTime = getProcessCreationTime(pid, &error);
    while (!error && creationTime == expectedCreationTime) {
        boost::this_thread::sleep_for(period);
        creationTime = getProcessCreationTime(pid, &error);
    }
    if (!error) {
        _exit(1);
    }
    reportUnwatchableProcess(pid, error, variableName, variableValue);
    if (error == boost::system::errc::no_such_process) {
        reportTermination(pid);
        _exit(1);
    }
}

}  // namespace UTIL
