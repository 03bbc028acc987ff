#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace Zendrik::Base {

/// `text` as one line of UTF-8 that does nothing to a terminal. Names and paths come from other
/// processes: control characters become '?', bytes that are no UTF-8 become "\xNN". Letters of all
/// scripts stay.
std::string printableText(std::string_view text);

/// As addresses and offsets are written: "0x" and the digits that the number needs.
std::string hexadecimal(std::uint64_t number);

}  // namespace Zendrik::Base
