// Preloaded to make calls of libc fail: with TEST_REFUSE=";CALL ERRNO NTH" the NTH call of that
// name and all later ones fail, counted along a chain of forks. Several such entries may follow one
// another.

// NOLINTNEXTLINE(bugprone-reserved-identifier): the system's own name for its extensions
#define _GNU_SOURCE
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <unistd.h>

static int refused(const char* call) {
    static int calls;
    char name[32];
    int error = 0;
    int from = 0;
    for (const char* text = getenv("TEST_REFUSE"); text != NULL; text = strchr(text + 1, ';')) {
        if (sscanf(text, "%*1[;]%31s %d %d", name, &error, &from) == 3 && strcmp(call, name) == 0 &&
            ++calls >= from) {
            errno = error;
            return 1;
        }
    }
    return 0;
}

#define REFUSABLE_AS(type, name, parameters, ...)                \
    type name parameters {                                       \
        return refused(#name) ? -1 : (type)syscall(__VA_ARGS__); \
    }
#define REFUSABLE(name, parameters, ...) REFUSABLE_AS(int, name, parameters, __VA_ARGS__)

REFUSABLE(close_range, (unsigned a, unsigned b, int flags), SYS_close_range, a, b, flags)
REFUSABLE_AS(ssize_t, getdents64, (int fd, void* buffer, size_t size), SYS_getdents64, fd, buffer,
             size)
REFUSABLE(setsid, (void), SYS_setsid)
REFUSABLE(setpgid, (pid_t pid, pid_t group), SYS_setpgid, pid, group)
REFUSABLE(chdir, (const char* path), SYS_chdir, path)
REFUSABLE(dup2, (int fd, int target), SYS_dup2, fd, target)
REFUSABLE(raise, (int number), SYS_tgkill, getpid(), gettid(), number)
REFUSABLE(fork, (void), SYS_fork)
REFUSABLE(waitpid, (pid_t pid, int* status, int flags), SYS_wait4, pid, status, flags, NULL)

ssize_t readlink(const char* path, char* buffer, size_t size) {
    const int fails = strcmp(path, "/proc/self/exe") == 0 && refused("readlink");
    return fails ? -1 : (ssize_t)syscall(SYS_readlink, path, buffer, size);
}

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const int mode = va_arg(rest, int);
    va_end(rest);
    const int fails = strcmp(path, "/dev/null") == 0 && refused("open");
    return fails ? -1 : openat(AT_FDCWD, path, flags, mode);
}

int fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    const int inherits = command == F_SETFD && (argument & FD_CLOEXEC) == 0;
    return inherits && refused("fcntl") ? -1 : (int)syscall(SYS_fcntl, fd, command, argument);
}
