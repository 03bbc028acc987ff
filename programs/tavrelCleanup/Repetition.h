#pragma once

namespace Cleanup {

/// When to try again, and after what pause. Writers outlive the application by a moment, and a file
/// server says that a file is busy as long as it is still open somewhere: a second try a little
/// later deletes what the first one had to leave.

/// Tries that leave something before the rest stays for good.
constexpr int maxPasses = 10;

/// Whether an errno means something that passes: what others do to the tree at the same time, a
/// file that is still open somewhere, a shortage.
bool isPassing(int error);

/// None before the first pass and the first repetition, then 10 ms, doubled up to a second: 2.3 s
/// before the last of `maxPasses`.
void pauseBeforePass(int pass);

}  // namespace Cleanup
