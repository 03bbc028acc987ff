#pragma once

#include <functional>
#include <string>
#include <vector>

namespace Info {

struct ChildEnd {
    std::string output;  ///< of standard output and standard error
    int status = 0;      ///< as waitpid gives it
    bool isSuccess() const { return status == 0; }
    /// How it ended, in a clause: "ended with status 127".
    std::string text() const;
};

/// Runs work, which may write to std::cout and returns its status, in a process of its own: a
/// library may crash it, and after `seconds` SIGALRM ends it.
/// @throw boost::system::system_error, std::system_error if there is no pipe or no process
ChildEnd inChild(const std::function<int()>& work, unsigned seconds = 10);

/// A program by its path, or its name in PATH, with all its arguments; further variables are set
/// for it alone.
ChildEnd runProgram(const std::vector<std::string>& words,
                    const std::vector<std::pair<std::string, std::string>>& variables = {},
                    unsigned seconds = 10);

}  // namespace Info
