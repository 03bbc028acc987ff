#pragma once

#include <locale.h>

#include <algorithm>
#include <string>

namespace UTIL {

/// Has the calling thread decode text beyond ASCII as UTF-8 while it lives. Before the interpreter
/// has started, the process is still in the "C" locale, in which a folder name beyond ASCII would
/// be decoded byte by byte: the interpreter's own search path would then differ from the same
/// folders as the tree lists them. Where the system has no C.UTF-8, or the text is ASCII, nothing
/// changes.
class TextLocale {
  public:
    /// @param text all that will be decoded
    explicit TextLocale(const std::string& text) {
        const auto isAscii = [](unsigned char byte) { return byte < 0x80; };
        if (!std::all_of(text.begin(), text.end(), isAscii)) {
            utf8_ = newlocale(LC_CTYPE_MASK, "C.UTF-8", locale_t());
        }
        if (utf8_ != locale_t()) {
            previous_ = uselocale(utf8_);
        }
    }
    ~TextLocale() {
        if (utf8_ != locale_t()) {
            uselocale(previous_);
            freelocale(utf8_);
        }
    }
    TextLocale(const TextLocale&) = delete;
    TextLocale& operator=(const TextLocale&) = delete;

  private:
    locale_t utf8_ = locale_t();
    locale_t previous_ = locale_t();
};

}  // namespace UTIL
