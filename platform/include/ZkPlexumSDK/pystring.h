#pragma once

#include <string>
#include <vector>

/// String operations that give what Python's own of the same names give. They keep no state, may be
/// called from any thread, and throw only what allocation throws.
namespace Plexum3::internal::pystring_v1 {

/// Python's separator.join(parts).
std::string join(const std::string& separator, const std::vector<std::string>& parts);

/// Python 3.7's text.replace(old, replacement, count). An empty old text goes between the
/// characters of the text read as UTF-8, a byte that belongs to no character counting as one.
/// @param count how many occurrences to replace from the left; negative for all
std::string replace(const std::string& text, const std::string& old, const std::string& replacement,
                    int count = -1);

}  // namespace Plexum3::internal::pystring_v1
