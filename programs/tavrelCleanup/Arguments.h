#pragma once

#include <sys/types.h>

#include <optional>
#include <string>
#include <string_view>

namespace Cleanup {

/// What the program was given: whom to outlive, and what to delete then.
struct Arguments {
    pid_t pid = 0;
    /// The folder as it was given, for messages.
    std::string path;
    /// The same in two parts: the folder that holds it ("." if the path has one component), and its
    /// name there, which is never empty, "." or "..". Trailing separators are gone, since behind
    /// one the kernel would follow a symbolic link that stands under the name.
    std::string parent;
    std::string name;

    bool isRelative() const { return path.front() != '/'; }
};

/// The process id that a text is, to the last character; 0 for any other text.
pid_t parsePid(std::string_view text);

/// Checks the command line: a decimal process id above 0 that fits and isn't this process's own,
/// and a path that names a folder: not empty, not "/", and not by way of "." or ".." at its end.
/// Reports the first thing that is wrong and returns nothing then.
std::optional<Arguments> parseArguments(int argc, const char* const* argv);

}  // namespace Cleanup
