#pragma once

// The way on where nothing shows it: a frame without call frame information, a pointer to nowhere
// that was called. What is found this way, and all that rests on it, is a guess.

#include <cstdint>
#include <functional>
#include <optional>
#include <string_view>

#include "stacks/record/StackCapture.h"

namespace Zendrik::Stacks {

/// The word at `address`, from the captured memory.
std::optional<std::uint64_t> wordAt(const StackCapture& capture, std::uint64_t address);

/// Whether code that ends with these bytes ends with a call: what stands behind is then an address
/// that a function returns to.
bool endsWithCall(std::string_view code);
inline constexpr std::size_t longestCall = 7;

/// Whether the code in front of `address` may be a call, of a file that can't be read any more: by
/// its captured code; where none of its code was captured, it may.
bool isBehindLostCall(const StackCapture& capture, std::uint64_t address);

/// The registers of the function that called the one with `registers`: along the frame pointer if
/// it leads to a return address, else by the next thing above the stack pointer that looks like
/// one. Registers that the callee may have saved are as it has them.
/// @return none when there is no such thing within 64 KiB, or no memory there
std::optional<Registers> guessCaller(const StackCapture& capture, const Registers& registers,
                                     const std::function<bool(std::uint64_t)>& isReturnAddress);

}  // namespace Zendrik::Stacks
