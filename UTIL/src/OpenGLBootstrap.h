#pragma once

#include <string>

namespace UTIL::OpenGL {

/// Finds out whether the display that DISPLAY names can make a double-buffered OpenGL context with
/// depth, stencil and alpha current on a small window. Leaves nothing behind but the loaded libX11
/// and libGL, which a run that never calls it doesn't need. Main thread, once a process, before
/// anything else uses Xlib: the X errors of all threads are taken meanwhile.
/// @param reason null, or receives one line that names what failed; empty on success
bool Bootstrap(std::string* reason);

}  // namespace UTIL::OpenGL

/// The one function of libTavrelOpenGLProbe.so, which alone links libX11 and libGL: the work of
/// UTIL::OpenGL::Bootstrap, which calls it.
extern "C" __attribute__((visibility("default"))) bool tavrelProbeOpenGL(std::string* reason);
