#pragma once

#include <string>

/// The one function of libTavrelOpenGLProbe.so: the work of UTIL::OpenGL::Bootstrap, which alone
/// calls it and says what it does. It is a library of its own because nothing else here links
/// libX11 and libGL.
extern "C" __attribute__((visibility("default"))) bool tavrelProbeOpenGL(std::string* reason);
