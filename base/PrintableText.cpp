#include "base/PrintableText.h"

#include <boost/locale/utf.hpp>

#include <cinttypes>
#include <cstdio>

namespace Zendrik::Base {

namespace {

// The two ranges of control characters. The second begins sequences of its own on terminals.
bool isControl(std::uint32_t character) {
    return character < 0x20 || (character >= 0x7f && character < 0xa0);
}

}  // namespace

std::string printableText(std::string_view text) {
    using Utf8 = boost::locale::utf::utf_traits<char>;
    std::string line;
    for (const char *at = text.data(), *end = at + text.size(); at != end;) {
        const char* next = at;
        const boost::locale::utf::code_point character = Utf8::decode(next, end);
        if (!boost::locale::utf::is_valid_codepoint(character)) {
            const auto byte = static_cast<unsigned char>(*at++);
            constexpr char digits[] = "0123456789abcdef";
            line += {'\\', 'x', digits[byte / 16], digits[byte % 16]};
            continue;
        }
        line += isControl(character) ? "?" : std::string(at, next);
        at = next;
    }
    return line;
}

std::string hexadecimal(std::uint64_t number) {
    char text[32];
    static_cast<void>(std::snprintf(text, sizeof text, "0x%" PRIx64, number));
    return text;
}

}  // namespace Zendrik::Base
