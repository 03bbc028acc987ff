#include "base/PrintableText.h"

#include <cinttypes>
#include <cstdio>

namespace Zendrik::Base {

namespace {

unsigned byteAt(std::string_view text, std::size_t at) {
    return static_cast<unsigned char>(text[at]);
}

// Bytes of the character that `text` begins with, and its number; 0 for what is no UTF-8.
std::size_t decode(std::string_view text, std::uint32_t& character) {
    struct Form {
        unsigned mask, lead;
        std::uint32_t least;  // a longer form of a smaller number is none
    };
    constexpr Form forms[] = {
        {0x80, 0x00, 0}, {0xe0, 0xc0, 0x80}, {0xf0, 0xe0, 0x800}, {0xf8, 0xf0, 0x10000}};
    constexpr std::uint32_t firstSurrogate = 0xd800;
    constexpr std::uint32_t lastSurrogate = 0xdfff;
    constexpr std::uint32_t last = 0x10ffff;
    const unsigned first = byteAt(text, 0);
    std::size_t size = 0;
    for (const Form& form : forms) {
        ++size;
        if ((first & form.mask) != form.lead) {
            continue;
        }
        character = first & ~form.mask;
        for (std::size_t i = 1; i < size; ++i) {
            if (i >= text.size() || (byteAt(text, i) & 0xc0) != 0x80) {
                return 0;
            }
            character = character << 6 | (byteAt(text, i) & 0x3f);
        }
        const bool surrogate = character >= firstSurrogate && character <= lastSurrogate;
        return character < form.least || character > last || surrogate ? 0 : size;
    }
    return 0;
}

// The two ranges of control characters. The second begins sequences of its own on terminals.
bool isControl(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

}  // namespace

std::string printableText(std::string_view text) {
    std::string line;
    while (!text.empty()) {
        std::uint32_t character = 0;
        const std::size_t size = decode(text, character);
        if (size == 0) {
            constexpr char digits[] = "0123456789abcdef";
            line += {'\\', 'x', digits[byteAt(text, 0) / 16], digits[byteAt(text, 0) % 16]};
        } else if (isControl(character)) {
            line += '?';
        } else {
            line += text.substr(0, size);
        }
        text.remove_prefix(size == 0 ? 1 : size);
    }
    return line;
}

std::string hexadecimal(std::uint64_t number) {
    char text[32];
    static_cast<void>(std::snprintf(text, sizeof text, "0x%" PRIx64, number));
    return text;
}

}  // namespace Zendrik::Base
