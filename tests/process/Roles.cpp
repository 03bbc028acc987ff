// The test program's main, and what it does as a child of its own tests:
//   tests_process --role NAME ARGUMENT...

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>
#include <functional>
#include <iostream>

#include <gmock/gmock.h>
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

// spoil daemon|handle SCRIPT: lets a shell inherit whatever it must not keep.
void spoil(const Words& words) {
    const ScopedFd null(::open("/dev/null", O_RDWR | O_CLOEXEC));
    for (const int fd : {9, 10, 50, 150}) {
        ::dup2(null.get(), fd);
    }
    const rlimit limit{100, 100};
    ::setrlimit(RLIMIT_NOFILE, &limit);
    ::signal(SIGUSR1, SIG_IGN);
    sigset_t blocked;
    ::sigemptyset(&blocked);
    ::sigaddset(&blocked, SIGUSR2);
    ::pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
    SubprocessOptions options = shell(words.at(1));
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
}

// launch daemon|handle|stopped PROGRAM: launches and tells how the call came back.
void launch(const Words& words) {
    SubprocessOptions options;
    options.args = {words.at(1)};
    options.ownProcessGroup = true;
    options.stopBeforeExec = words.at(0) == "stopped";
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
}

}  // namespace
}  // namespace Plexum3::Base

int main(int argc, char** argv) {
    using namespace Plexum3::Base;
    if (argc > 2 && std::string(argv[1]) == "--role") {
        const std::map<std::string, std::function<void(const Words&)>> roles{{"spoil", spoil},
                                                                             {"launch", launch}};
        roles.at(argv[2])({argv + 3, argv + argc});
        return 0;
    }
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
