#include "stacks/python/PythonText.h"

#include <boost/locale/utf.hpp>

#include <algorithm>
#include <cstdio>
#include <iterator>
#include <vector>

#include "stacks/python/PythonLayout.h"

namespace Zendrik::Stacks {

namespace {

constexpr std::uint64_t maxCharacters = 1024;

/// The characters of a text: where, how many, how wide (1, 2 or 4 bytes).
struct Characters {
    std::uint64_t address;
    std::uint64_t count;
    std::size_t width;
};

void appendUtf8(std::string& text, std::uint32_t character) {
    constexpr std::uint32_t replacement = 0xFFFD;
    constexpr std::uint32_t lastCharacter = 0x10FFFF;
    if (character >= 0xD800 && character <= 0xDFFF) {
        char escape[sizeof "\\udc80"];
        std::snprintf(escape, sizeof escape, "\\u%04x", character);
        text += escape;
        return;
    }
    boost::locale::utf::utf_traits<char>::encode(
        character > lastCharacter ? replacement : character, std::back_inserter(text));
}

/// What the word of flags says: two bits for interning, three for the width, then three flags.
struct Form {
    explicit Form(std::uint32_t state)
        : width(state >> 2 & 7), isCompact((state >> 5 & 1) != 0), isAscii((state >> 6 & 1) != 0) {}

    std::size_t width;
    bool isCompact;
    bool isAscii;
};

std::optional<Characters> locate(const MemoryReader& memory, std::uint64_t address) {
    const auto& layout = pythonLayout.text;
    std::vector<char> object(layout.size);
    if (!memory(address, object.data(), layout.asciiSize)) {
        return std::nullopt;
    }
    const Form form(fieldAt<std::uint32_t>(object.data(), layout.state));
    const auto count = fieldAt<std::uint64_t>(object.data(), layout.length);
    if (form.isCompact && form.isAscii) {
        return Characters{address + layout.asciiSize, count, 1};
    }
    // The other forms are longer, and that one may be the last thing in memory.
    if (form.width == 3 || form.width > 4 || !memory(address, object.data(), layout.size)) {
        return std::nullopt;
    }
    if (form.width == 0) {  // made by an old function of the C interface, and not looked at since
        return Characters{fieldAt<std::uint64_t>(object.data(), layout.wide),
                          fieldAt<std::uint64_t>(object.data(), layout.wideLength),
                          sizeof(wchar_t)};
    }
    return Characters{form.isCompact ? address + layout.compactSize
                                     : fieldAt<std::uint64_t>(object.data(), layout.content),
                      count, form.width};
}

std::string toUtf8(const std::string& bytes, std::size_t width) {
    std::string text;
    for (std::size_t at = 0; at + width <= bytes.size(); at += width) {
        std::uint32_t character = 0;  // the machine is little-endian
        std::memcpy(&character, bytes.data() + at, width);
        appendUtf8(text, character);
    }
    return text;
}

}  // namespace

std::optional<std::string> readPythonText(const MemoryReader& memory, std::uint64_t address) {
    const std::optional<Characters> characters = locate(memory, address);
    if (!characters) {
        return std::nullopt;
    }
    std::string bytes(std::min(characters->count, maxCharacters) * characters->width, '\0');
    if (!memory(characters->address, bytes.data(), bytes.size())) {
        return std::nullopt;
    }
    return toUtf8(bytes, characters->width) + (characters->count > maxCharacters ? "..." : "");
}

}  // namespace Zendrik::Stacks
