#pragma once

#include <string>

namespace Zendrik::Base {

/// The file of the running program with every symbolic link resolved: realpath(3) of
/// /proc/self/exe. Uses a buffer that the whole process shares, so two threads must not call it at
/// the same time.
/// @throw std::logic_error if the link can't be resolved, as without a mounted /proc
std::string executablePath();

}  // namespace Zendrik::Base
