// Preloaded into a launcher: the call that FAILING_CALL names fails with EIO.

#include <dlfcn.h>
#include <sys/types.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace {

bool fails(const char* name) {
    const char* chosen = std::getenv("FAILING_CALL");
    errno = EIO;
    return chosen != nullptr && std::strcmp(chosen, name) == 0;
}

template <typename Function>
Function* next(const char* name) {
    return reinterpret_cast<Function*>(dlsym(RTLD_NEXT, name));
}

}  // namespace

extern "C" {

pid_t waitpid(pid_t pid, int* status, int options) {
    return fails("waitpid") ? -1 : next<pid_t(pid_t, int*, int)>("waitpid")(pid, status, options);
}

ssize_t readlink(const char* path, char* buffer, std::size_t size) {
    const bool own = std::strcmp(path, "/proc/self/exe") == 0;
    return own && fails("readlink")
               ? -1
               : next<ssize_t(const char*, char*, std::size_t)>("readlink")(path, buffer, size);
}
}
