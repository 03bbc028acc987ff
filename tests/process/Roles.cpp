// The test program's main, and what it does as a child of its own tests:
//   tests_process --role NAME ARGUMENT...

#include <fcntl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <cstdlib>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>

#include <gmock/gmock.h>
#include <boost/filesystem/operations.hpp>
#include <boost/system/system_error.hpp>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

using Words = std::vector<std::string>;

bool isBlocked(int number) {
    sigset_t mask;
    ::pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    return ::sigismember(&mask, number) == 1;
}

// describe PATH ARGUMENT...: writes what it finds itself to be to PATH, one "name value" a line.
int describe(const Words& words) {
    std::ostringstream text;
    for (const auto& [fd, target] : openDescriptors()) {
        text << "fd " << fd << ' ' << (fd > 2 && target[0] != '/' ? "pipe" : target) << '\n';
    }
    const mode_t mask = ::umask(0);
    text << "session-leader " << (::getsid(0) == ::getpid()) << "\ngroup-leader "
         << (::getpgrp() == ::getpid()) << "\nsession-of-group " << (::getsid(0) == ::getpgrp())
         << "\ncwd " << boost::filesystem::current_path().string() << "\numask " << mask
         << "\nterminal " << (::open("/dev/tty", O_RDWR | O_CLOEXEC) != -1) << '\n';
    std::ifstream status("/proc/self/status");
    for (std::string line; std::getline(status, line);) {
        if (line.compare(0, 4, "SigB") == 0 || line.compare(0, 4, "SigI") == 0) {
            text << line << '\n';
        }
    }
    for (const std::string& word : words) {
        text << "word " << word << '\n';
    }
    for (char** entry = environ; *entry != nullptr; ++entry) {
        text << "env " << *entry << '\n';
    }
    std::ofstream(words.at(0)) << text.str();
    return 0;
}

int finish(const Words& words) {
    return std::stoi(words.at(0));
}

int die(const Words& words) {
    ::raise(std::stoi(words.at(0)));
    return 0;
}

// Until standard input ends.
int hold(const Words&) {
    readToEnd(STDIN_FILENO);
    return 0;
}

// What a daemon must not inherit, then descriptors that nobody marked close-on-exec.
int spoil(const Words& words) {
    const ScopedFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {9, 10, 50, 150}) {
        ::dup2(null.get(), fd);
    }
    const rlimit limit{100, 100};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::signal(SIGPIPE, SIG_IGN);
    ::signal(SIGUSR1, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    ::umask(027);
    ::setenv("TEST_MARK", "carried along", 1);
    SubprocessOptions options = role({"describe", words.at(1)});
    if (words.at(0) == "daemon") {
        Subprocess::spawnDaemonized(options.args);
    } else {
        options.closeOtherDescriptors = true;
        options.keepDescriptors = {50, 9, 9, -1, 1, 150, 77};
        Subprocess::spawn(options).wait();
    }
    // Neither the mask nor a refused call may pass unnoticed.
    const bool refused = ::close_range(60, 60, 0) == -1;
    std::cout << isBlocked(SIGUSR2) << isBlocked(SIGUSR1) << refused;
    return 0;
}

// launch daemon|handle PROGRAM...: launches and tells how the call came back.
int launch(const Words& words) {
    SubprocessOptions options;
    options.args.assign(words.begin() + 1, words.end());
    options.ownProcessGroup = true;
    options.stopBeforeExec = std::getenv("TEST_STOP") != nullptr;
    try {
        if (words.at(0) == "daemon") {
            Subprocess::spawnDaemonized(options.args);
            std::cout << "returned";
        } else {
            const Subprocess child = Subprocess::spawn(options);
            std::cout << "state " << static_cast<int>(child.state()) << " pid " << child.pid();
        }
    } catch (const boost::system::system_error& error) {
        std::cout << "threw " << error.code() << ' ' << error.what();
    }
    std::cout << (isBlocked(SIGUSR1) ? " blocked" : "");
    return 0;
}

int runRole(const std::string& name, const Words& words) {
    const std::map<std::string, std::function<int(const Words&)>> roles{
        {"describe", describe}, {"finish", finish}, {"die", die},
        {"hold", hold},         {"spoil", spoil},   {"launch", launch}};
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    return roles.at(name)(words);
}

}  // namespace
}  // namespace Plexum3::Base

int main(int argc, char** argv) {
    if (argc > 2 && std::string(argv[1]) == "--role") {
        return Plexum3::Base::runRole(argv[2], {argv + 3, argv + argc});
    }
    const rlimit noCore{0, 0};
    ::setrlimit(RLIMIT_CORE, &noCore);
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
