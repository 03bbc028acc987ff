// Calls UTIL::OpenGL::Bootstrap in a fresh process, tells on standard output how it went, and lives
// on until standard input ends, so that what the call left behind can be looked at.
//
//   OpenGLBootstrapClient [null]     null: the call gets no reason to fill
//
// Prints "usable" or "unusable", "handler back" or "handler lost", and the reason.

#include <X11/Xlib.h>

#include <cstring>
#include <iostream>

#include "UTIL/src/OpenGLBootstrap.h"

namespace {

int ownHandler(Display* /*display*/, XErrorEvent* /*event*/) {
    return 0;
}

}  // namespace

int main(int argc, char** argv) {
    XSetErrorHandler(ownHandler);
    const bool wantsReason = argc < 2 || std::strcmp(argv[1], "null") != 0;
    std::string reason = "left from before";
    const bool usable = UTIL::OpenGL::Bootstrap(wantsReason ? &reason : nullptr);
    const bool handlerBack = XSetErrorHandler(nullptr) == ownHandler;
    std::cout << (usable ? "usable" : "unusable") << ", "
              << (handlerBack ? "handler back" : "handler lost") << ": " << reason << std::endl;
    std::cin.get();
}
