#pragma once

#include <sys/types.h>

#include <string>

namespace StackTool {

/// What to print, and how: either a process or the file of a dump.
struct Arguments {
    pid_t pid = 0;
    /// Empty for a process.
    std::string file;
    /// The interpreter's own frames, too.
    bool allFrames = false;
};

/// The outcome of reading a command line.
struct ArgumentsOrText {
    /// What is wrong with it, in a clause; empty if nothing is.
    std::string error;
    /// What --help or --version asked for; empty if neither did.
    std::string text;
    Arguments arguments;
};

/// A word of digits is a process, everything else a file: "./4711" is one, too.
ArgumentsOrText parseArguments(int argc, const char* const* argv);

}  // namespace StackTool
