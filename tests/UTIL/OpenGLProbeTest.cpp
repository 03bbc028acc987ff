// The probe against an X library of the test's own, which fails where a case wants it to and
// records what is asked of it: paths that no real server can be brought to take.

#include <gtest/gtest.h>

// Behind GoogleTest: the macros of Xlib are names in there.
#include <GL/glx.h>
#include <X11/Xlib.h>

#include <cstring>
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
constexpr Window defaultRoot = 11;
constexpr Window visualsRoot = 12;
constexpr Colormap theColormap = 21;
constexpr Window theWindow = 22;

int oldHandler(Display* /*display*/, XErrorEvent* /*event*/) {
    return 0;
}

Display* theDisplay() {
    return reinterpret_cast<Display*>(&displayRecord);
}
GLXContext theContext() {
    return reinterpret_cast<GLXContext>(&x);
}

template <typename T>
T answer(const char* call, T result) {
    x.calls += std::string(" ") + call;
    if (x.throwing == call) {
        throw std::bad_alloc();
    }
    return x.failing == call ? T{} : result;
}

class OpenGLProbe : public testing::Test {
  protected:
    void SetUp() override {
        x = FakeX();
        x.handler = oldHandler;
        screens[0].root = visualsRoot;
        screens[1].root = defaultRoot;
        displayRecord.default_screen = 1;
        displayRecord.screens = screens;
        visualInfo.visual = &visual;
        visualInfo.screen = 0;
        visualInfo.depth = 32;
    }
};

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
    return answer("display", theDisplay());
}

XVisualInfo* glXChooseVisual(Display* /*display*/, int screen, int* attributes) {
    EXPECT_EQ(screen, 1);
    for (const int* attribute = attributes; *attribute != None; ++attribute) {
        x.visualAttributes.push_back(*attribute);
    }
    return answer("visual", &visualInfo);
}

Colormap XCreateColormap(Display* /*display*/, Window root, Visual* of, int allocate) {
    EXPECT_EQ(root, visualsRoot);
    EXPECT_EQ(of, &visual);
    EXPECT_EQ(allocate, AllocNone);
    return answer("colormap", theColormap);
}

Window XCreateWindow(Display* /*display*/, Window parent, int left, int top, unsigned width,
                     unsigned height, unsigned border, int depth, unsigned windowClass, Visual* of,
                     unsigned long mask, XSetWindowAttributes* attributes) {
    EXPECT_EQ(parent, defaultRoot);
    EXPECT_EQ(std::vector<int>({left, top}), std::vector<int>({0, 0}));
    EXPECT_EQ(std::vector<unsigned>({width, height, border}), std::vector<unsigned>({1, 1, 0}));
    EXPECT_EQ(depth, 32);
    EXPECT_EQ(windowClass, static_cast<unsigned>(InputOutput));
    EXPECT_EQ(of, &visual);
    EXPECT_EQ(mask, static_cast<unsigned long>(CWColormap));
    EXPECT_EQ(attributes->colormap, theColormap);
    EXPECT_EQ(attributes->event_mask, 0);
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
    EXPECT_EQ(of, &visualInfo);
    EXPECT_EQ(shared, nullptr);
    EXPECT_EQ(direct, True);
    return answer("context", theContext());
}

Bool glXMakeCurrent(Display* /*display*/, GLXDrawable drawable, GLXContext context) {
    EXPECT_EQ(drawable == theWindow, context == theContext());
    return answer(context != nullptr ? "current" : "-current", True);
}

void glXDestroyContext(Display* /*display*/, GLXContext context) {
    EXPECT_EQ(context, theContext());
    answer("-context", 0);
}

int XDestroyWindow(Display* /*display*/, Window window) {
    EXPECT_EQ(window, theWindow);
    return answer("-window", 1);
}

int XFreeColormap(Display* /*display*/, Colormap colormap) {
    EXPECT_EQ(colormap, theColormap);
    return answer("-colormap", 1);
}

int XFree(void* data) {
    EXPECT_EQ(data, &visualInfo);
    return answer("-visual", 1);
}

int XCloseDisplay(Display* display) {
    EXPECT_EQ(display, theDisplay());
    return answer("-display", 0);
}

}  // extern "C"

namespace {

TEST_F(OpenGLProbe, EveryWayOutGivesBackWhatItTook) {
    const struct {
        const char* failing;
        const char* reason;
        const char* calls;
    } cases[] = {
        {"", "",
         " init handler display visual colormap window sync context current -current"
         " -context -window -colormap -visual -display -handler"},
        {"display", "Could not connect to X display", " init handler display -handler"},
        {"visual", "Could not find suitable X visual",
         " init handler display visual -display -handler"},
        {"colormap", "XCreateColormap failed",
         " init handler display visual colormap -visual -display -handler"},
        {"window", "XCreateWindow failed",
         " init handler display visual colormap window -colormap -visual -display -handler"},
        {"context", "glXCreateContext failed",
         " init handler display visual colormap window sync context"
         " -window -colormap -visual -display -handler"},
        {"current", "glXMakeCurrent failed",
         " init handler display visual colormap window sync context current"
         " -context -window -colormap -visual -display -handler"},
    };
    for (const auto& c : cases) {
        for (const bool wantsReason : {true, false}) {
            SCOPED_TRACE(c.failing);
            SetUp();
            x.failing = c.failing;
            std::string reason = "left from before";
            EXPECT_EQ(tavrelProbeOpenGL(wantsReason ? &reason : nullptr), *c.failing == '\0');
            EXPECT_EQ(reason, wantsReason ? c.reason : "left from before");
            EXPECT_EQ(x.calls, c.calls);
            EXPECT_EQ(x.handler, oldHandler);
        }
    }
    EXPECT_EQ(x.visualAttributes,
              std::vector<int>({GLX_RGBA, GLX_DOUBLEBUFFER, GLX_DEPTH_SIZE, 16, GLX_STENCIL_SIZE, 8,
                                GLX_RED_SIZE, 8, GLX_GREEN_SIZE, 8, GLX_BLUE_SIZE, 8,
                                GLX_ALPHA_SIZE, 8}));
}

TEST_F(OpenGLProbe, ExceptionOnTheWayGivesBackWhatWasTaken) {
    x.throwing = "context";
    std::string reason;
    EXPECT_THROW(tavrelProbeOpenGL(&reason), std::bad_alloc);
    EXPECT_EQ(x.calls,
              " init handler display visual colormap window sync context"
              " -window -colormap -visual -display -handler");
}

// Last in the file: the error code stays for the life of the process.
TEST_F(OpenGLProbe, XErrorIsToldAndNeverForgotten) {
    std::string reason;
    x.errorCode = 130;
    x.failing = "-display";  // of no consequence to the result
    EXPECT_FALSE(tavrelProbeOpenGL(&reason));
    EXPECT_EQ(reason, "X error 130 - text of 130");
    EXPECT_EQ(x.calls,
              " init handler display visual colormap window sync text"
              " -window -colormap -visual -display -handler");

    x.errorCode = 0;
    x.calls.clear();
    EXPECT_FALSE(tavrelProbeOpenGL(nullptr));
    EXPECT_EQ(x.calls,
              " init handler display visual colormap window sync"
              " -window -colormap -visual -display -handler");
}

}  // namespace
