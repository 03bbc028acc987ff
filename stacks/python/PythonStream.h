#pragma once

// Python's stacks as a stream of a minidump, so that a dump can be printed again later. Readers
// that don't know the stream step over it.
//
//     appendPythonStream(dump.get(), capture.threads, stacks);
//     ...
//     std::uint32_t size = 0;
//     if (minidump.SeekToStreamType(pythonStreamType, &size)) ...   // read `size` bytes
//     const std::optional<PythonStacks> stacks = parsePythonStream(bytes, capture.threads);

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "stacks/record/PythonStacks.h"
#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// Of the range that is left to streams of one's own.
inline constexpr std::uint32_t pythonStreamType = 0x54560001;

/// Appends the stream to a complete minidump; without an interpreter there is nothing to append.
/// A reader that opens the dump meanwhile sees it whole, with the stream or without.
/// @param dump open for reading and writing; its position doesn't matter and stays
/// @param threads of the same process: a dump doesn't have their thread pointers
/// @return 0, or an errno value: the dump is as it was then. EINVAL: it is no minidump, EFBIG: its
///     32-bit offsets don't reach that far
int appendPythonStream(int dump, const std::vector<CapturedThread>& threads,
                       const PythonStacks& stacks);

/// Reads the content of the stream back.
/// @param threads of the dump: those that the stream knows get their thread pointers and names
/// @return none for anything else, also from another version of the product; `threads` is left
///     alone then
std::optional<PythonStacks> parsePythonStream(std::string_view bytes,
                                              std::vector<CapturedThread>& threads);

}  // namespace Zendrik::Stacks
