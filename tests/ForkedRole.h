#pragma once

#include <errno.h>
#include <sys/mman.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <utility>
#include <vector>

// What runs once in a process, or ends it, is tested in a child of the test:
//
//     const RoleOutcome outcome = runRole([] { std::puts("done"); return 3; });
//     EXPECT_EQ(outcome.status, 3);
//
// A role that hangs is ended by SIGALRM.

struct RoleOutcome {
    int status;  // exit status; 128 and the signal if a signal ended it
    std::string output;
    std::string errors;
};

inline std::string readFromStart(int fd) {
    std::string text(static_cast<std::size_t>(lseek(fd, 0, SEEK_END)), '\0');
    const ssize_t size = pread(fd, text.data(), text.size(), 0);
    text.resize(size < 0 ? 0 : static_cast<std::size_t>(size));
    close(fd);
    return text;
}

inline RoleOutcome runRole(const std::function<int()>& role) {
    constexpr unsigned deadlineSeconds = 25;
    const int output = memfd_create("output", MFD_CLOEXEC);
    const int errors = memfd_create("errors", MFD_CLOEXEC);
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        alarm(deadlineSeconds);
        dup2(output, STDOUT_FILENO);
        dup2(errors, STDERR_FILENO);
        const int status = role();
        std::fflush(nullptr);
        _exit(status);
    }
    int status = 0;
    while (waitpid(child, &status, 0) == -1 && errno == EINTR) {
    }
    return {WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status), readFromStart(output),
            readFromStart(errors)};
}

// Sets the variables, in order; a null value removes one.
inline void setVariables(const std::vector<std::pair<const char*, const char*>>& variables) {
    for (const auto& [name, value] : variables) {
        if (value == nullptr) {
            unsetenv(name);
        } else {
            setenv(name, value, 1);
        }
    }
}
