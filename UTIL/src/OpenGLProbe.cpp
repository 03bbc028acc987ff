#include <GL/glx.h>
#include <X11/Xlib.h>

#include <functional>
#include <utility>

#include "UTIL/src/OpenGLBootstrap.h"

namespace {

// Written by the error handler, read by the probe, never reset.
int lastXErrorCode = 0;

int recordXError(Display* /*display*/, XErrorEvent* event) {
    lastXErrorCode = event->error_code;
    return 0;
}

class ScopeGuard {
  public:
    explicit ScopeGuard(std::function<void()> onExit) : onExit_(std::move(onExit)) {}
    ScopeGuard(const ScopeGuard&) = delete;
    ScopeGuard& operator=(const ScopeGuard&) = delete;
    ~ScopeGuard() { onExit_(); }  // NOLINT(bugprone-exception-escape): it runs C functions

  private:
    std::function<void()> onExit_;
};

bool fail(std::string* reason, const char* text) {
    if (reason != nullptr) {
        *reason = text;
    }
    return false;
}

bool failWithXError(std::string* reason, Display* display, int code) {
    if (reason != nullptr) {
        char text[1024] = {};
        XGetErrorText(display, code, text, sizeof text);
        *reason = "X error " + std::to_string(code) + " - " + text;
    }
    return false;
}

XVisualInfo* chooseVisual(Display* display) {
    // clang-format off
    int attributes[] = {GLX_RGBA, GLX_DOUBLEBUFFER,
                        GLX_DEPTH_SIZE, 16, GLX_STENCIL_SIZE, 8,
                        GLX_RED_SIZE, 8, GLX_GREEN_SIZE, 8, GLX_BLUE_SIZE, 8, GLX_ALPHA_SIZE, 8,
                        None};
    // clang-format on
    return glXChooseVisual(display, DefaultScreen(display), attributes);
}

Window createWindow(Display* display, const XVisualInfo& visualInfo, Colormap colormap) {
    XSetWindowAttributes attributes{};
    attributes.colormap = colormap;
    return XCreateWindow(display, DefaultRootWindow(display), /*x=*/0, /*y=*/0, /*width=*/1,
                         /*height=*/1, /*border_width=*/0, visualInfo.depth, InputOutput,
                         visualInfo.visual, CWColormap, &attributes);
}

}  // namespace

bool tavrelProbeOpenGL(std::string* reason) {
    if (reason != nullptr) {
        reason->clear();
    }
    // A library that can't have threads can still be probed.
    static_cast<void>(XInitThreads());
    const XErrorHandler oldHandler = XSetErrorHandler(recordXError);
    const ScopeGuard handlerGuard([oldHandler] { XSetErrorHandler(oldHandler); });

    Display* const display = XOpenDisplay(nullptr);
    if (display == nullptr) {
        return fail(reason, "Could not connect to X display");
    }
    const ScopeGuard displayGuard([display] { XCloseDisplay(display); });

    XVisualInfo* const visualInfo = chooseVisual(display);
    if (visualInfo == nullptr) {
        return fail(reason, "Could not find suitable X visual");
    }
    const ScopeGuard visualGuard([visualInfo] { XFree(visualInfo); });

    const Colormap colormap = XCreateColormap(display, RootWindow(display, visualInfo->screen),
                                              visualInfo->visual, AllocNone);
    if (colormap == None) {
        return fail(reason, "XCreateColormap failed");
    }
    const ScopeGuard colormapGuard([display, colormap] { XFreeColormap(display, colormap); });

    const Window window = createWindow(display, *visualInfo, colormap);
    if (window == None) {
        return fail(reason, "XCreateWindow failed");
    }
    const ScopeGuard windowGuard([display, window] { XDestroyWindow(display, window); });

    // Errors of the requests above arrive here at the latest; nothing below waits for one.
    XSync(display, /*discard=*/False);
    if (lastXErrorCode != 0) {
        return failWithXError(reason, display, lastXErrorCode);
    }

    const GLXContext context =
        glXCreateContext(display, visualInfo, /*shareList=*/nullptr, /*direct=*/True);
    if (context == nullptr) {
        return fail(reason, "glXCreateContext failed");
    }
    const ScopeGuard contextGuard([display, context] { glXDestroyContext(display, context); });

    if (glXMakeCurrent(display, window, context) == False) {
        return fail(reason, "glXMakeCurrent failed");
    }
    // The answer is settled, and the context is destroyed in any case.
    static_cast<void>(glXMakeCurrent(display, None, nullptr));
    return true;
}
