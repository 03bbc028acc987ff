#include "programs/tavrelCleanup/Report.h"

#include <sys/uio.h>
#include <syslog.h>
#include <cstdarg>
#include <cstdio>

#include <algorithm>
#include <cstring>

namespace Cleanup {
namespace {

constexpr char kPrefix[] = "tavrelCleanup: ";

void writeLine(char* text, std::size_t length) {
    iovec parts[] = {{const_cast<char*>(kPrefix), sizeof kPrefix - 1},
                     {text, length},
                     {const_cast<char*>("\n"), 1}};
    // A reader that has gone is no reason to stop.
    [[maybe_unused]] const ssize_t ignored = writev(2, parts, 3);
}

}  // namespace

void report(const char* format, ...) {
    static char text[8192];
    va_list values;
    va_start(values, format);
    vsnprintf(text, sizeof text, format, values);
    va_end(values);
    const std::size_t length = std::strlen(text);
    std::replace_if(
        text, text + length, [](unsigned char c) { return c < 0x20 || c == 0x7f; }, '?');
    writeLine(text, length);
    openlog("tavrelCleanup", LOG_PID, LOG_USER);
    syslog(LOG_ERR, "%s", text);
}

}  // namespace Cleanup
