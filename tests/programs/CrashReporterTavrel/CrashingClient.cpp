// A bare launcher: starts a crash reporter the way the real one does, arms Breakpad and crashes.
//
//     crashing_client REPORTER|- KIND [THREADS]
//
// "-" is in-process capture into TAVREL_CRASH_DIR. Prints "armed PID" (of the reporter) and then,
// one line each, what a test must know; waits for a byte on standard input; then does KIND.
// CLIENT_SECCOMP="kill 101" lets each of the reporter's processes that makes system call 101 die,
// "deny 101" lets the call fail with EPERM.
// CLIENT_FILE_LIMIT is RLIMIT_FSIZE for all of them.

#include <fcntl.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <map>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "client/linux/crash_generation/crash_generation_server.h"
#include "client/linux/handler/exception_handler.h"

namespace {

void say(const std::string& what, long value) {
    std::printf("%s %ld\n", what.c_str(), value);
    std::fflush(stdout);
}

void awaitGo() {
    char go = 0;
    if (read(STDIN_FILENO, &go, 1) != 1) {
        _exit(3);
    }
}

long threadId() {
    return syscall(SYS_gettid);
}

// `what` is "kill" or "deny" and the numbers of system calls.
void filterSystemCalls(const std::string& what) {
    std::istringstream words(what);
    std::string verdict;
    words >> verdict;
    std::vector<sock_filter> rules{BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr))};
    for (unsigned number = 0; words >> number;) {
        rules.push_back(BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, number, 0, 1));
        rules.push_back(BPF_STMT(BPF_RET | BPF_K, verdict == "kill" ? SECCOMP_RET_KILL_PROCESS
                                                                    : SECCOMP_RET_ERRNO | EPERM));
    }
    rules.push_back(BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
    const sock_fprog program{static_cast<unsigned short>(rules.size()), rules.data()};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) != 0 ||
        prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0) {
        std::perror("seccomp");
        _exit(3);
    }
}

int startReporter(const char* reporter) {
    int server = -1;
    int client = -1;
    int handshake[2];
    if (!google_breakpad::CrashGenerationServer::CreateReportChannel(&server, &client) ||
        pipe(handshake) != 0) {
        _exit(3);
    }
    (void)fcntl(server, F_SETFD, 0);
    const pid_t child = fork();
    if (child == 0) {
        close(handshake[0]);
        if (const char* filter = std::getenv("CLIENT_SECCOMP")) {
            filterSystemCalls(filter);
        }
        const char* prompt = std::getenv("CLIENT_PROMPT");
        execl(reporter, reporter, std::to_string(server).c_str(),
              std::to_string(handshake[1]).c_str(), prompt != nullptr ? prompt : "0", nullptr);
        _exit(255);
    }
    close(handshake[1]);
    pollfd ready{handshake[0], POLLIN, 0};
    char byte = 0;
    constexpr int patienceMs = 20000;
    if (poll(&ready, 1, patienceMs) != 1 || read(handshake[0], &byte, 1) != 1 || byte != 1) {
        _exit(4);
    }
    close(handshake[0]);
    (void)syscall(SYS_prctl, PR_SET_PTRACER, child, 0, 0, 0);
    say("armed", child);
    return client;
}

[[gnu::noinline]] void crashByNull() {
    volatile int* volatile nowhere = reinterpret_cast<int*>(16);
    *nowhere = 1;
}

[[gnu::noinline]] int overflowStack(int depth) {
    char frame[4096];
    // Somebody might look at the frame: the compiler makes no loop of the recursion.
    asm volatile("" : : "r"(frame) : "memory");
    return depth < 0 ? 0 : overflowStack(depth + 1) + frame[0];
}

void crashByBus() {
    char name[] = "/tmp/crashing_client.XXXXXX";
    const int file = mkstemp(name);
    unlink(name);
    void* page = mmap(nullptr, 4096, PROT_READ, MAP_SHARED, file, 0);
    (void)*static_cast<volatile char*>(page);
}

// The sanitizer would end the process before the processor does.
[[gnu::no_sanitize_undefined]] void crashByDivision() {
    volatile int dividend = 7;
    volatile int divisor = 0;
    dividend = dividend / divisor;
}

// Waits with its descriptors open for standard input to end; nobody waits for it.
template <typename Then>
void leaveChild(Then then) {
    const pid_t child = fork();
    if (child == 0) {
        say("child", getpid());
        close(STDOUT_FILENO);
        close(STDERR_FILENO);
        char byte = 0;
        while (read(STDIN_FILENO, &byte, 1) == 1) {
        }
        then();
        _exit(0);
    }
    _exit(0);
}

void crashInChild() {
    const pid_t child = fork();
    if (child == 0) {
        say("crashing", getpid());
        crashByNull();
    }
    int status = 0;
    waitpid(child, &status, 0);
    _exit(WIFSIGNALED(status) && WTERMSIG(status) == SIGSEGV ? 0 : 5);
}

void inThread(const std::function<void()>& crash) {
    std::thread([&] {
        pthread_setname_np(pthread_self(), "sinking");
        say("crashing", threadId());
        crash();
    }).join();
}

void crashTwice() {
    pthread_barrier_t barrier;
    pthread_barrier_init(&barrier, nullptr, 2);
    const auto crash = [&] {
        pthread_barrier_wait(&barrier);
        crashByNull();
    };
    std::thread first(crash);
    std::thread second(crash);
    first.join();
    second.join();
}

void inMain(const std::function<void()>& crash) {
    say("crashing", threadId());
    crash();
}

}  // namespace

int main(int argc, char** argv) {
    if (argc < 3) {
        return 3;
    }
    if (const char* limit = std::getenv("CLIENT_FILE_LIMIT")) {
        const rlimit size{std::strtoul(limit, nullptr, 10), RLIM_INFINITY};
        (void)setrlimit(RLIMIT_FSIZE, &size);
    }
    const rlimit noCore{0, 0};
    (void)setrlimit(RLIMIT_CORE, &noCore);
    const bool inProcess = std::string(argv[1]) == "-";
    const char* folder = std::getenv("TAVREL_CRASH_DIR");
    const google_breakpad::MinidumpDescriptor descriptor(folder != nullptr ? folder : "/var/tmp/");
    const google_breakpad::ExceptionHandler handler(descriptor, nullptr, nullptr, nullptr, true,
                                                    inProcess ? -1 : startReporter(argv[1]));

    std::vector<std::thread> threads(argc > 3 ? std::strtoul(argv[3], nullptr, 10) : 0);
    for (std::thread& thread : threads) {
        thread = std::thread([] { pause(); });
    }
    awaitGo();

    const std::map<std::string, std::function<void()>> kinds{
        {"null", [] { inMain(crashByNull); }},
        {"abort", [] { inMain([] { std::abort(); }); }},
        {"bus", [] { inMain(crashByBus); }},
        {"division", [] { inMain(crashByDivision); }},
        {"illegal", [] { inMain([] { __builtin_trap(); }); }},
        {"trap", [] { inMain([] { (void)raise(SIGTRAP); }); }},
        {"overflow", [] { inMain([] { (void)overflowStack(0); }); }},
        {"thread", [] { inThread(crashByNull); }},
        {"two-threads", crashTwice},
        {"child", crashInChild},
        {"exit", [] { _exit(0); }},
        {"leave-child", [] { leaveChild([] {}); }},
        {"leave-crashing-child", [] { leaveChild(crashByNull); }},
    };
    const auto kind = kinds.find(argv[2]);
    if (kind != kinds.end()) {
        kind->second();
    }
    _exit(3);
}
