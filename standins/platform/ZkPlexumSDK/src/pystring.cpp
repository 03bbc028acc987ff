#include "ZkPlexumSDK/pystring.h"

#include <algorithm>
#include <limits>

namespace Plexum3::internal::pystring_v1 {
namespace {

bool isContinuation(unsigned char byte) {
    return (byte & 0xC0U) == 0x80U;
}

// Table 3-7 of the Unicode Standard: the second byte's range depends on the first.
bool isSecondByte(unsigned char first, unsigned char second) {
    switch (first) {
        case 0xE0:
            return second >= 0xA0 && second <= 0xBF;
        case 0xED:
            return second >= 0x80 && second <= 0x9F;
        case 0xF0:
            return second >= 0x90 && second <= 0xBF;
        case 0xF4:
            return second >= 0x80 && second <= 0x8F;
        default:
            return isContinuation(second);
    }
}

// Bytes of the UTF-8 character at the position; 1 for a byte that begins none.
std::size_t characterLength(const std::string& text, std::size_t position) {
    const auto byteAt = [&](std::size_t i) { return static_cast<unsigned char>(text[i]); };
    const unsigned char first = byteAt(position);
    std::size_t length = 1;
    if (first >= 0xC2 && first <= 0xF4) {
        length = first < 0xE0 ? 2 : first < 0xF0 ? 3 : 4;
    }
    if (length == 1 || position + length > text.size() ||
        !isSecondByte(first, byteAt(position + 1))) {
        return 1;
    }
    for (std::size_t i = position + 2; i < position + length; ++i) {
        if (!isContinuation(byteAt(i))) {
            return 1;
        }
    }
    return length;
}

// In front of each character, then behind the last, until the count is used up.
std::string interleave(const std::string& text, const std::string& replacement, std::size_t count) {
    std::string result;
    std::size_t position = 0;
    while (count > 0 && position < text.size()) {
        const std::size_t length = characterLength(text, position);
        result.append(replacement).append(text, position, length);
        position += length;
        --count;
    }
    result.append(text, position, std::string::npos);
    return count > 0 ? result.append(replacement) : result;
}

}  // namespace

std::string join(const std::string& separator, const std::vector<std::string>& parts) {
    std::string result;
    for (std::size_t i = 0; i < parts.size(); ++i) {
        result.append(i == 0 ? std::string() : separator).append(parts[i]);
    }
    return result;
}

std::string replace(const std::string& text, const std::string& old, const std::string& replacement,
                    int count) {
    // Python 3.7 leaves an empty text alone when any count is given, even with an empty old text.
    if (count == 0 || (count > 0 && text.empty())) {
        return text;
    }
    std::size_t left = count < 0 ? std::numeric_limits<std::size_t>::max() : std::size_t(count);
    if (old.empty()) {
        return interleave(text, replacement, left);
    }
    std::string result;
    std::size_t position = 0;
    for (; left > 0; --left) {
        const std::size_t found = text.find(old, position);
        if (found == std::string::npos) {
            break;
        }
        result.append(text, position, found - position).append(replacement);
        position = found + old.size();
    }
    return result.append(text, position, std::string::npos);
}

}  // namespace Plexum3::internal::pystring_v1
