// Calls UTIL::OpenGL::Bootstrap in a fresh process and tells how it went.
//
//   OpenGLBootstrapClient [null | XError | CALL | ATTRIBUTE]
//
// null: the call gets no reason to fill; XError: the server refuses a request; CALL, one of those
// below: it gives its failure result; ATTRIBUTE, such as GLX_ALPHA_SIZE's "11=8" or GLX_RGBA's "4":
// no visual has what it asks for. Prints "usable" or "unusable", "handler back" or "handler lost",
// how many connections are left open, and the reason.

#include <GL/glx.h>
#include <X11/Xlib.h>
#include <dlfcn.h>

#include <iostream>

#include "UTIL/src/OpenGLBootstrap.h"

namespace {

std::string failing;
int connections = 0;

template <typename Function>
Function* real(const char* name) {
    return reinterpret_cast<Function*>(dlsym(dlopen("libGL.so.1", RTLD_NOW), name));
}

int ownHandler(Display* /*display*/, XErrorEvent* /*event*/) {
    return 0;
}

}  // namespace

// The probe's calls arrive here first, and those of the GL library.
extern "C" {

Display* XOpenDisplay(const char* name) {
    Display* const display = real<decltype(XOpenDisplay)>(__func__)(name);
    connections += display != nullptr ? 1 : 0;
    return display;
}

int XCloseDisplay(Display* display) {
    --connections;
    return real<decltype(XCloseDisplay)>(__func__)(display);
}

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

XVisualInfo* glXChooseVisual(Display* display, int screen, int* attributes) {
    for (const int* each = attributes; *each != None; ++each) {
        std::string asked = std::to_string(*each);
        if (*each != GLX_RGBA && *each != GLX_DOUBLEBUFFER) {
            asked += "=" + std::to_string(*++each);
        }
        if (asked == failing) {
            return nullptr;
        }
    }
    return real<decltype(glXChooseVisual)>(__func__)(display, screen, attributes);
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
              << (handlerBack ? "handler back" : "handler lost") << ", " << connections
              << " left: " << reason << std::endl;
}
