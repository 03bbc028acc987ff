#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>

namespace google_breakpad {
class CFIFrameInfo;
}

namespace Zendrik::Reporter {

// Turns the call frame information of one function into the rules that hold at `address`.
// `common` and `entry` are the function's common information entry and frame description entry, as
// they stand in .eh_frame with their length fields; `entryAddress` is the virtual address of the
// latter. Null when `address` lies outside of the function, when the entries are damaged, or when
// the frame address needs a DWARF expression, which Breakpad's walker can't evaluate.
//
// One function's entries are enough: whole tables of a large library take seconds to convert.
std::unique_ptr<google_breakpad::CFIFrameInfo> unwindRulesAt(uint64_t address,
                                                             const uint8_t* common,
                                                             size_t commonSize,
                                                             const uint8_t* entry, size_t entrySize,
                                                             uint64_t entryAddress);

}  // namespace Zendrik::Reporter
