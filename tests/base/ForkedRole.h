#pragma once

#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>

/// What a forked role left behind: waitpid's status, and all that it and its children wrote to
/// standard error.
struct RoleOutcome {
    int status = -1;
    std::string text;

    bool exitedWell() const { return WIFEXITED(status) && WEXITSTATUS(status) == 0; }
};

/// Runs @p role in a child of its own, for code whose state belongs to the process. The child ends
/// with status 0 after the role, and by SIGALRM if it hangs.
inline RoleOutcome runForked(const std::function<void()>& role) {
    constexpr unsigned deadlineSeconds = 60;
    int ends[2];
    if (pipe(ends) != 0) {
        return {};
    }
    std::fflush(nullptr);
    const pid_t child = fork();
    if (child == 0) {
        dup2(ends[1], STDERR_FILENO);
        closefrom(STDERR_FILENO + 1);
        alarm(deadlineSeconds);
        role();
        std::exit(0);
    }
    close(ends[1]);
    RoleOutcome outcome;
    char piece[4096];
    for (ssize_t got = 0; (got = read(ends[0], piece, sizeof piece)) > 0;) {
        outcome.text.append(piece, static_cast<std::size_t>(got));
    }
    close(ends[0]);
    waitpid(child, &outcome.status, 0);
    return outcome;
}
