// The probe against an X library of the test's own, which fails where a case wants it to and
// records what is asked of it: paths that no real server can be brought to take.

#include <gtest/gtest.h>

// Behind GoogleTest: the macros of Xlib are names in there.
#include <GL/glx.h>
#include <X11/Xlib.h>

#include <new>
#include <utility>
#include <vector>

#include "UTIL/src/OpenGLProbe.h"

namespace {

struct FakeX {
    std::string failing;   // the call that gives its failure result
    std::string throwing;  // the call that throws
    int errorCode = 0;     // reported to the error handler at XSync
    std::string calls;
    std::vector<int> visualAttributes;
    XErrorHandler handler = nullptr;
};

FakeX x;
Screen screens[2];
// Xlib's own record of a display, which the macros of its header look into.
std::remove_pointer_t<_XPrivDisplay> displayRecord;
Visual visual;
XVisualInfo visualInfo;
constexpr Window visualsRoot = 11;
constexpr Window defaultRoot = 12;
constexpr Colormap theColormap = 21;
constexpr Window theWindow = 22;
Display* const theDisplay = reinterpret_cast<Display*>(&displayRecord);
GLXContext const theContext = reinterpret_cast<GLXContext>(&x);

int oldHandler(Display* /*display*/, XErrorEvent* /*event*/) {
    return 0;
}

template <typename T>
T answer(const char* call, T result) {
    x.calls += std::string(" ") + call;
    if (x.throwing == call) {
        throw std::bad_alloc();
    }
    return x.failing == call ? T{} : result;
}

}  // namespace

extern "C" {

Status XInitThreads() {
    return answer("init", 1);
}

XErrorHandler XSetErrorHandler(XErrorHandler handler) {
    answer(handler == oldHandler ? "-handler" : "handler", 0);
    return std::exchange(x.handler, handler);
}

Display* XOpenDisplay(const char* name) {
    EXPECT_EQ(name, nullptr);
    return answer("display", theDisplay);
}

XVisualInfo* glXChooseVisual(Display* /*display*/, int screen, int* attributes) {
    EXPECT_EQ(screen, 1);
    for (const int* attribute = attributes; *attribute != None; ++attribute) {
        x.visualAttributes.push_back(*attribute);
    }
    return answer("visual", &visualInfo);
}

Colormap XCreateColormap(Display* /*display*/, Window root, Visual* of, int allocate) {
    EXPECT_TRUE(root == visualsRoot && of == &visual && allocate == AllocNone);
    return answer("colormap", theColormap);
}

Window XCreateWindow(Display* /*display*/, Window parent, int left, int top, unsigned width,
                     unsigned height, unsigned border, int depth, unsigned windowClass, Visual* of,
                     unsigned long mask, XSetWindowAttributes* attributes) {
    EXPECT_TRUE(parent == defaultRoot && of == &visual && depth == 32);
    EXPECT_TRUE(left == 0 && top == 0 && width == 1 && height == 1 && border == 0);
    EXPECT_TRUE(windowClass == InputOutput && mask == CWColormap);
    EXPECT_TRUE(attributes->colormap == theColormap && attributes->event_mask == 0);
    return answer("window", theWindow);
}

int XSync(Display* display, Bool discard) {
    EXPECT_EQ(discard, False);
    if (x.errorCode != 0) {
        XErrorEvent event{};
        event.error_code = static_cast<unsigned char>(x.errorCode);
        EXPECT_EQ(x.handler(display, &event), 0);
    }
    return answer("sync", 1);
}

int XGetErrorText(Display* /*display*/, int code, char* text, int length) {
    EXPECT_EQ(length, 1024);
    snprintf(text, static_cast<std::size_t>(length), "text of %d", code);
    return answer("text", 0);
}

GLXContext glXCreateContext(Display* /*display*/, XVisualInfo* of, GLXContext shared, Bool direct) {
    EXPECT_TRUE(of == &visualInfo && shared == nullptr && direct == True);
    return answer("context", theContext);
}

Bool glXMakeCurrent(Display* /*display*/, GLXDrawable drawable, GLXContext context) {
    EXPECT_EQ(drawable == theWindow, context == theContext);
    return answer(context != nullptr ? "current" : "-current", True);
}

void glXDestroyContext(Display* /*display*/, GLXContext context) {
    answer(context == theContext ? "-context" : "-other", 0);
}

int XDestroyWindow(Display* /*display*/, Window window) {
    return answer(window == theWindow ? "-window" : "-other", 1);
}

int XFreeColormap(Display* /*display*/, Colormap colormap) {
    return answer(colormap == theColormap ? "-colormap" : "-other", 1);
}

int XFree(void* data) {
    return answer(data == &visualInfo ? "-visual" : "-other", 1);
}

int XCloseDisplay(Display* display) {
    return answer(display == theDisplay ? "-display" : "-other", 0);
}

}  // extern "C"

namespace {

void setUp(const char* failing, int errorCode) {
    x = FakeX();
    x.failing = failing;
    x.errorCode = errorCode;
    x.handler = oldHandler;
    screens[0].root = visualsRoot;
    screens[1].root = defaultRoot;
    displayRecord.default_screen = 1;
    displayRecord.screens = screens;
    visualInfo.visual = &visual;
    visualInfo.screen = 0;
    visualInfo.depth = 32;
}

TEST(OpenGLProbe, EveryWayOutGivesBackWhatItTook) {
    const std::string toWindow = " init handler display visual colormap window sync";
    const std::string noWindow = " -window -colormap -visual -display -handler";
    setUp("", 0);
    x.throwing = "context";
    EXPECT_THROW(tavrelProbeOpenGL(nullptr), std::bad_alloc);
    EXPECT_EQ(x.calls, toWindow + " context" + noWindow);

    const struct {
        const char* failing;
        int errorCode;
        const char* reason;
        std::string calls;
    } cases[] = {
        {"", 0, "", toWindow + " context current -current -context" + noWindow},
        {"init", 0, "", toWindow + " context current -current -context" + noWindow},
        {"-current", 0, "", toWindow + " context current -current -context" + noWindow},
        {"display", 0, "Could not connect to X display", " init handler display -handler"},
        {"visual", 0, "Could not find suitable X visual",
         " init handler display visual -display -handler"},
        {"colormap", 0, "XCreateColormap failed",
         " init handler display visual colormap -visual -display -handler"},
        {"window", 0, "XCreateWindow failed",
         " init handler display visual colormap window -colormap -visual -display -handler"},
        {"context", 0, "glXCreateContext failed", toWindow + " context" + noWindow},
        {"current", 0, "glXMakeCurrent failed", toWindow + " context current -context" + noWindow},
        // Last of all: the error code stays for the life of the process.
        {"", 130, "X error 130 - text of 130", toWindow + " text" + noWindow},
        {"", 0, "X error 130 - text of 130", toWindow + " text" + noWindow},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.failing);
        setUp(c.failing, c.errorCode);
        std::string reason = "left from before";
        EXPECT_EQ(tavrelProbeOpenGL(&reason), *c.reason == '\0');
        EXPECT_EQ(reason, c.reason);
        EXPECT_EQ(x.calls, c.calls);
        EXPECT_EQ(x.handler, oldHandler);
    }
    EXPECT_EQ(x.visualAttributes,
              std::vector<int>({GLX_RGBA, GLX_DOUBLEBUFFER, GLX_DEPTH_SIZE, 16, GLX_STENCIL_SIZE, 8,
                                GLX_RED_SIZE, 8, GLX_GREEN_SIZE, 8, GLX_BLUE_SIZE, 8,
                                GLX_ALPHA_SIZE, 8}));
    // Without a reason to fill the error is as fatal, and its text isn't asked for.
    setUp("", 0);
    EXPECT_FALSE(tavrelProbeOpenGL(nullptr));
    EXPECT_EQ(x.calls, toWindow + noWindow);
}

}  // namespace
