// A launcher that arms crash capture and crashes, and prints what that took.
//
//     CrashTimes ours|bare out|in THREADS
//
// "ours" arms the product's crash handler, with CrashReporterTavrel beside this program; "bare"
// does by hand the least that Breakpad needs, with BareReporter. Dumps in process go to
// TAVREL_CRASH_DIR. Prints "armed NS" (nanoseconds), waits for a byte on standard input, prints
// "crashed NS" (CLOCK_MONOTONIC) and crashes.

#include <client/linux/crash_generation/crash_generation_server.h>
#include <client/linux/handler/exception_handler.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <ctime>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "crash/src/zkCrashHandler.h"

namespace {

using google_breakpad::ExceptionHandler;
using google_breakpad::MinidumpDescriptor;
using Zendrik::Breakpad::CrashHandler;

long nowNs() {
    timespec now{};
    static_cast<void>(clock_gettime(CLOCK_MONOTONIC, &now));
    constexpr long nsPerSecond = 1000000000;
    return now.tv_sec * nsPerSecond + now.tv_nsec;
}

void say(const char* what, long ns) {
    std::printf("%s %ld\n", what, ns);
    std::fflush(stdout);
}

int startBareReporter(const std::string& reporter) {
    int server = -1;
    int client = -1;
    int handshake[2];
    if (!google_breakpad::CrashGenerationServer::CreateReportChannel(&server, &client) ||
        pipe(handshake) != 0) {
        std::exit(1);
    }
    static_cast<void>(fcntl(server, F_SETFD, 0));
    const std::string serverText = std::to_string(server);
    const std::string pipeText = std::to_string(handshake[1]);
    const pid_t child = fork();
    if (child == 0) {
        close(handshake[0]);
        execl(reporter.c_str(), reporter.c_str(), serverText.c_str(), pipeText.c_str(), "0",
              nullptr);
        _exit(1);
    }
    close(handshake[1]);
    char byte = 0;
    if (read(handshake[0], &byte, 1) != 1 || byte != 1) {
        std::exit(1);
    }
    close(handshake[0]);
    static_cast<void>(syscall(SYS_prctl, PR_SET_PTRACER, child, 0, 0, 0));
    return client;
}

void armBare(const std::string& folder, const std::string& dumps, bool outOfProcess) {
    const int client = outOfProcess ? startBareReporter(folder + "/BareReporter") : -1;
    // Kept, as the product keeps its own.
    static const ExceptionHandler* const handler =
        new ExceptionHandler(MinidumpDescriptor(dumps), nullptr, nullptr, nullptr, true, client);
    static_cast<void>(handler);
}

void armOurs(const std::string& dumps, bool outOfProcess) {
    CrashHandler::Parameters parameters;
    parameters.setProductName("Tavrel");
    parameters.setReporterName("CrashReporterTavrel");
    parameters.setPrompt(false);
    parameters.setDumpPath(dumps);
    parameters.setMode(outOfProcess ? CrashHandler::OutOfProcess : CrashHandler::InProcess);
    static const CrashHandler* const handler = new CrashHandler(parameters);
    static_cast<void>(handler);
}

}  // namespace

int main(int argc, char** argv) {
    constexpr int wanted = 4;
    const char* dumps = std::getenv("TAVREL_CRASH_DIR");
    if (argc != wanted || dumps == nullptr) {
        return 1;
    }
    const rlimit noCore{0, 0};
    static_cast<void>(setrlimit(RLIMIT_CORE, &noCore));
    const std::string program = argv[0];
    const bool outOfProcess = std::string(argv[2]) == "out";
    const long before = nowNs();
    if (std::string(argv[1]) == "ours") {
        armOurs(dumps, outOfProcess);
    } else {
        armBare(program.substr(0, program.rfind('/')), dumps, outOfProcess);
    }
    say("armed", nowNs() - before);
    std::vector<std::thread> threads(std::strtoul(argv[3], nullptr, 10));
    for (std::thread& thread : threads) {
        thread = std::thread([] { pause(); });
    }
    char go = 0;
    if (read(STDIN_FILENO, &go, 1) != 1) {
        _exit(1);
    }
    say("crashed", nowNs());
    volatile int* volatile nowhere = nullptr;
    *nowhere = 1;
}
