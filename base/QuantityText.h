#pragma once

#include <cstdint>
#include <string>

namespace Zendrik::Base {

/// Quantities as short texts for a person to read, for messages about how long something took
/// or how large it is: "12.50 ms", "3 min 7 s", "1.50 KB". A value on a threshold takes the larger
/// unit. Any thread may call these; they throw only what allocation throws.
///
/// They are for messages of the application's native code, which links tavrel_base for them.
/// Nothing of the launcher calls them.

/// Two decimals in us, ms or s below a minute; above it whole minutes and seconds, the rest of a
/// second dropped, seconds left out when they are 0, and no hours ("120 min"). A negative duration
/// is given in us; one that is not a number reads "0 min".
std::string formatDurationMilliseconds(double milliseconds);

/// The same for a duration in seconds.
std::string formatDurationSeconds(double seconds);

/// Units B, KB, MB, GB and TB are powers of 1024. With a precision of 0 the number is cut off to a
/// whole one, not rounded; any other precision is the count of decimals, rounded.
std::string formatByteSize(std::uint64_t bytes, unsigned precision);

}  // namespace Zendrik::Base
