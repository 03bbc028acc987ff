// The test program's main, and its part as a process that launches for its own tests:
//   tests_process --launch daemon|handle|stopped program ARGUMENT...

#include <boost/system/system_error.hpp>
#include <gmock/gmock.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <iostream>

#include "tests/process/ProcessFixture.h"

namespace Plexum3::Base {
namespace {

// Descriptors, dispositions and masks that a child must not keep.
void spoil() {
    for (const int fd : {9, 10, 49, 50, 99, 150}) {
        dup2(STDIN_FILENO, fd);
    }
    const rlimit limit{100, 100};
    setrlimit(RLIMIT_NOFILE, &limit);
    umask(0027);
    signal(SIGUSR1, SIG_IGN);
    signal(SIGRTMAX, SIG_IGN);
    sigset_t blocked;
    sigemptyset(&blocked);
    sigaddset(&blocked, SIGUSR2);
    pthread_sigmask(SIG_SETMASK, &blocked, nullptr);
}

// Tells how the call came back, and what its child must not have changed here.
void launch(const std::string& mode, const std::vector<std::string>& args) {
    SubprocessOptions options;
    options.args = args;
    options.ownProcessGroup = true;
    options.workingDirectory = "/";
    options.stdinFd = STDIN_FILENO;
    options.stopBeforeExec = mode == "stopped";
    options.closeOtherDescriptors = true;
    options.keepDescriptors = {50, 9, 9, -1, 1, 150, 77};
    try {
        if (mode == "daemon") {
            prctl(PR_SET_CHILD_SUBREAPER, 1);
            Subprocess::spawnDaemonized(args);
            std::cout << "returned";
            for (int status = 0; wait(&status) != -1;) {
                std::cout << (status == 0 ? "" : ", status " + std::to_string(WEXITSTATUS(status)));
            }
        } else {
            const Subprocess child = Subprocess::spawn(options);
            std::cout << "state " << static_cast<int>(child.state())
                      << (child.pid() == -1 ? " without pid" : "");
        }
    } catch (const boost::system::system_error& error) {
        std::cout << "threw " << error.code() << ' ' << error.what();
    }
    std::cout << (blockedSignals() == std::vector<int>{SIGUSR2} ? "" : ", blocked")
              << (close_range(60, 60, 0) == 0 ? "" : ", close_range refused");
}

}  // namespace
}  // namespace Plexum3::Base

int main(int argc, char** argv) {
    if (argc > 3 && std::string(argv[1]) == "--launch") {
        alarm(10);  // a child that stays stopped
        Plexum3::Base::spoil();
        Plexum3::Base::launch(argv[2], {argv + 3, argv + argc});
        return 0;
    }
    ::testing::InitGoogleMock(&argc, argv);
    return RUN_ALL_TESTS();
}
