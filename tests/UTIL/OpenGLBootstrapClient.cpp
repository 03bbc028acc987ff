// Calls UTIL::OpenGL::Bootstrap in a fresh process and tells how it went.
//
//   OpenGLBootstrapClient [null]     null: the call gets no reason to fill
//
// Prints "usable" or "unusable", "handler back" or "handler lost", how many connections of this
// process the server still has, where it lets itself be asked, and the reason.

#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>

#include <chrono>
#include <cstring>
#include <iostream>

#include "UTIL/src/OpenGLBootstrap.h"

namespace {

int ownHandler(Display* /*display*/, XErrorEvent* /*event*/) {
    return 0;
}

int countClients(Display* display) {
    int count = 0;
    XResClient* clients = nullptr;
    XResQueryClients(display, &count, &clients);
    XFree(clients);
    return count;
}

/// The server may see the end of a connection later than the client does, so that it is asked again
/// until a deadline has passed; each question is a round trip.
int countConnectionsLeft() {
    Display* const display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return 0;
    }
    constexpr int serverAndThisConnection = 2;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(20);
    int left = 0;
    do {
        left = countClients(display) - serverAndThisConnection;
    } while (left != 0 && std::chrono::steady_clock::now() < deadline);
    XCloseDisplay(display);
    return left;
}

}  // namespace

int main(int argc, char** argv) {
    XSetErrorHandler(ownHandler);
    const bool wantsReason = argc < 2 || std::strcmp(argv[1], "null") != 0;
    std::string reason = "left from before";
    const bool usable = UTIL::OpenGL::Bootstrap(wantsReason ? &reason : nullptr);
    const bool handlerBack = XSetErrorHandler(nullptr) == ownHandler;
    std::cout << (usable ? "usable" : "unusable") << ", "
              << (handlerBack ? "handler back" : "handler lost") << ", " << countConnectionsLeft()
              << " left: " << reason << std::endl;
}
