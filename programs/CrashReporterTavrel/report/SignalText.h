#pragma once

#include <string>

#include "stacks/record/StackCapture.h"

namespace Zendrik::Reporter {

/// The signal that a process crashed by, in one line: "SIGSEGV (SEGV_MAPERR) at 0x10". One that a
/// process has sent says so. The processor gives the kernel no address for an access to one that
/// can't be (a non-canonical one): the registers that hold such a value are named instead.
/// @param capture its `pid` is the crashed process's
std::string signalText(const Stacks::StackCapture& capture);

}  // namespace Zendrik::Reporter
