#pragma once

// What tests of processes share: a check that nothing is left behind, and children that are roles
// of the test program itself (see Roles.cpp).

#include <csignal>
#include <map>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "process/Subprocess.h"

namespace Plexum3::Base {

// Longer than anything takes on a loaded machine: what exceeds it hangs.
constexpr int DEADLINE_MS = 60'000;

// Afterwards there are the same open descriptors, the same signal mask and no child.
class ProcessFixture : public ::testing::Test {
  protected:
    void SetUp() override;
    void TearDown() override;

  private:
    std::map<int, std::string> descriptors_;
    sigset_t mask_{};
};

struct Pipe {
    Pipe() { createPipe(readEnd, writeEnd); }

    ScopedFd readEnd;
    ScopedFd writeEnd;
};

// Open descriptors of this process, but for the one it looks with, and what they are open on.
std::map<int, std::string> openDescriptors();

// What launches one role of the test program, see Roles.cpp.
SubprocessOptions role(const std::vector<std::string>& words);

// What launches a shell that runs `script`.
SubprocessOptions shell(const std::string& script);

// All that is written to `fd` until its last writer closes it, or what came before the deadline.
std::string readToEnd(int fd);

struct Ended {
    Subprocess child;
    std::string output;
    std::string errors;
};

// Launches, reads standard output and error to their ends, and reaps the child if there is one.
Ended run(SubprocessOptions options);

}  // namespace Plexum3::Base
