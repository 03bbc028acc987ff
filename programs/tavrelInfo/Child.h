#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Info {

struct ChildEnd {
    std::string output;  ///< of standard output and standard error
    int status = 0;      ///< as waitpid gives it; -1 if there was no child
    bool isSuccess() const { return status == 0; }
    /// How it ended, in a clause: "ended with status 127".
    std::string text() const;
};

/// Runs work in a process of its own, which libraries that crash or wait for ever cost alone: after
/// `seconds` SIGALRM ends it. It may write to standard output; what it returns is its status.
ChildEnd inChild(const std::function<int()>& work, unsigned seconds = 10);

/// A program by its path, or its name in PATH, with all its arguments; further variables are set
/// for it alone.
ChildEnd runProgram(const std::vector<std::string>& words,
                    const std::vector<std::pair<std::string, std::string>>& variables = {},
                    unsigned seconds = 10);

}  // namespace Info
