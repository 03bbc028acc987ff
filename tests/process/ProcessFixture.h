#pragma once

// What tests of processes share: a check that nothing is left behind, and how they launch.

#include <boost/filesystem/operations.hpp>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <map>
#include <string>
#include <vector>

#include "process/Subprocess.h"

namespace Plexum3::Base {

// Longer than anything takes on a loaded machine: what exceeds it hangs.
constexpr int deadlineMs = 25'000;

// Open descriptors of this process, but for the one it looks with, and what they are open on.
inline std::map<int, std::string> openDescriptors() {
    const std::string folder = "/proc/" + std::to_string(getpid()) + "/fd";
    std::map<int, std::string> found;
    for (const auto& entry : boost::filesystem::directory_iterator(folder)) {
        const std::string target = boost::filesystem::read_symlink(entry.path()).string();
        if (target != folder) {
            found[std::stoi(entry.path().filename().string())] = target;
        }
    }
    return found;
}

inline std::vector<int> blockedSignals() {
    sigset_t mask;
    pthread_sigmask(SIG_SETMASK, nullptr, &mask);
    std::vector<int> blocked;
    for (int number = 1; number < NSIG; ++number) {
        if (sigismember(&mask, number) == 1) {
            blocked.push_back(number);
        }
    }
    return blocked;
}

// Afterwards there are the same open descriptors, the same signal mask and no child.
class ProcessFixture : public ::testing::Test {
  protected:
    void TearDown() override {
        EXPECT_EQ(openDescriptors(), descriptors_);
        EXPECT_EQ(blockedSignals(), blocked_);
        EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "a child is left";
        EXPECT_EQ(errno, ECHILD);
    }

  private:
    std::map<int, std::string> descriptors_ = openDescriptors();
    std::vector<int> blocked_ = blockedSignals();
};

struct Pipe {
    Pipe() { createPipe(readEnd, writeEnd); }

    ScopedFd readEnd;
    ScopedFd writeEnd;
};

// What launches a shell that runs `script`.
inline SubprocessOptions shell(const std::string& script) {
    SubprocessOptions options;
    options.args = {"/bin/sh", "-c", script};
    return options;
}

}  // namespace Plexum3::Base
