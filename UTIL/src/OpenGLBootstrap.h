#pragma once

#include <string>

namespace UTIL::OpenGL {

/// Finds out whether the display that DISPLAY names can make a double-buffered OpenGL context with
/// depth, stencil and alpha current on a small window. The whole chain from connection to current
/// context is made and taken down again; nothing of it is left, in this process or on the server.
///
/// The result is true if the context could be made current. If it is false and reason isn't null,
/// *reason is one line that names the failed link of the chain or, where libX11, libGL or the
/// probe's own library can't be loaded, the loader's text. On success *reason is empty.
///
/// The first call loads libTavrelOpenGLProbe.so, looked for along the executable's run path, and
/// with it libX11 and libGL; they stay loaded. A run that never calls neither pays for them nor
/// needs them.
///
/// For the main thread, once a process, before anything else uses Xlib: it calls XInitThreads,
/// takes the X errors of all threads while it runs, and an X error once seen fails every later
/// call. Throws only what allocation throws.
bool Bootstrap(std::string* reason);

}  // namespace UTIL::OpenGL
