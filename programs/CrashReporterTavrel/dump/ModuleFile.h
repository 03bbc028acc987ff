#pragma once

#include <string>

namespace Zendrik::Reporter {

/// Whether Breakpad may look into a file that a crashed process has mapped, for its identifier. It
/// maps the file and goes where the file says, so a truncated or damaged one (an installation that
/// was interrupted) is the reader's death by SIGBUS or SIGSEGV; and a FIFO that has taken its place
/// is waited for.
/// @return false for what is no regular file, and for an ELF file whose header, tables, names or
/// notes lead outside of it; true for a file that isn't there, which is no danger
bool isSoundModule(const std::string& path);

}  // namespace Zendrik::Reporter
