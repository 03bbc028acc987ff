#include "UTIL/src/OpenGLBootstrap.h"

#include <dlfcn.h>

namespace UTIL::OpenGL {
namespace {

bool failWithLoaderText(std::string* reason) {
    const char* text = dlerror();
    if (reason != nullptr) {
        *reason = text != nullptr ? text : "The OpenGL probe can't be loaded";
    }
    return false;
}

}  // namespace

bool Bootstrap(std::string* reason) {
    // Never closed: Xlib and GLX leave pointers into themselves where a dlclose doesn't reach.
    void* library = dlopen("libTavrelOpenGLProbe.so", RTLD_NOW | RTLD_LOCAL);
    if (library == nullptr) {
        return failWithLoaderText(reason);
    }
    const auto probe =
        reinterpret_cast<decltype(&tavrelProbeOpenGL)>(dlsym(library, "tavrelProbeOpenGL"));
    return probe != nullptr ? probe(reason) : failWithLoaderText(reason);
}

}  // namespace UTIL::OpenGL
