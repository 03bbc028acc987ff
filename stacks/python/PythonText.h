#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "stacks/memory/ProcessMemory.h"

namespace Zendrik::Stacks {

/// The UTF-8 of a `str` object of another process, in whichever of the interpreter's forms it is.
///
/// A surrogate, by which the interpreter stands for a byte of a path that it couldn't decode, comes
/// out as it prints it: `\udce9`. A number that is no character at all comes out as U+FFFD. Of a
/// text of more than 1,024 characters the rest is replaced by "...".
///
/// @return none if it can't be read, or isn't one
std::optional<std::string> readPythonText(const MemoryReader& memory, std::uint64_t address);

}  // namespace Zendrik::Stacks
