#pragma once

#include <string>
#include <vector>

namespace Plexum3::internal::pystring_v1 {

/// Python's separator.join(parts).
std::string join(const std::string& separator, const std::vector<std::string>& parts);

/// Python's text.replace(old, replacement, count), an empty old text included.
/// @param count how many occurrences to replace from the left; negative for all
std::string replace(const std::string& text, const std::string& old, const std::string& replacement,
                    int count = -1);

}  // namespace Plexum3::internal::pystring_v1
