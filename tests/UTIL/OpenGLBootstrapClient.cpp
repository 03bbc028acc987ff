// Calls UTIL::OpenGL::Bootstrap in a fresh process and tells how it went.
//
//   OpenGLBootstrapClient [null | XError | CALL]
//
// null: the call gets no reason to fill; XError: the server refuses a request; CALL, one of those
// below: it gives its failure result. Prints "usable" or "unusable", "handler back" or "handler
// lost", how many connections of this process the server still has, where it lets itself be asked,
// and the reason.

#include <GL/glx.h>
#include <X11/Xlib.h>
#include <X11/extensions/XRes.h>
#include <dlfcn.h>

#include <chrono>
#include <iostream>

#include "UTIL/src/OpenGLBootstrap.h"

namespace {

std::string failing;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(dlopen("libGL.so.1", RTLD_NOW), name));
}

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

// The probe's calls arrive here first.
extern "C" {

Colormap XCreateColormap(Display* display, Window root, Visual* visual, int allocate) {
    if (failing == "XError") {
        XMapWindow(display, None);
    }
    return failing == __func__
               ? None
               : real<decltype(XCreateColormap)>(__func__)(display, root, visual, allocate);
}

Window XCreateWindow(Display* display, Window parent, int x, int y, unsigned width, unsigned height,
                     unsigned border, int depth, unsigned windowClass, Visual* visual,
                     unsigned long mask, XSetWindowAttributes* attributes) {
    return failing == __func__ ? None
                               : real<decltype(XCreateWindow)>(__func__)(
                                     display, parent, x, y, width, height, border, depth,
                                     windowClass, visual, mask, attributes);
}

Bool glXMakeCurrent(Display* display, GLXDrawable drawable, GLXContext context) {
    return failing == __func__
               ? False
               : real<decltype(glXMakeCurrent)>(__func__)(display, drawable, context);
}

}  // extern "C"

int main(int argc, char** argv) {
    failing = argc > 1 ? argv[1] : "";
    XSetErrorHandler(ownHandler);
    std::string reason = "left from before";
    const bool usable = UTIL::OpenGL::Bootstrap(failing == "null" ? nullptr : &reason);
    const bool handlerBack = XSetErrorHandler(nullptr) == ownHandler;
    std::cout << (usable ? "usable" : "unusable") << ", "
              << (handlerBack ? "handler back" : "handler lost") << ", " << countConnectionsLeft()
              << " left: " << reason << std::endl;
}
