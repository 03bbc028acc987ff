// Preloaded to make calls of libc fail: with TEST_REFUSE=";CALL ERRNO NTH" the NTH call of that
// name and all later ones fail, counted along a chain of forks. Several such entries may follow one
// another. For the cleanup program: just before it opens the folder SWAP_AT, the paths SWAP_IN and
// SWAP_OUT are swapped, as another process may do between two of its calls; with NO_TYPES folders
// don't say which of their entries are folders, as on some file systems; DATABASE_HOME is the home
// folder that the user data base gives. With TEST_PRINT a process that may trace
// this one is printed, and a file of /proc that children inherit.

// NOLINTNEXTLINE(bugprone-reserved-identifier): the system's own name for its extensions
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/socket.h>
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

#define REFUSABLE(name, parameters, ...)                        \
    int name parameters {                                       \
        return refused(#name) ? -1 : (int)syscall(__VA_ARGS__); \
    }

REFUSABLE(close_range, (unsigned a, unsigned b, int flags), SYS_close_range, a, b, flags)
REFUSABLE(setsid, (void), SYS_setsid)
REFUSABLE(setpgid, (pid_t pid, pid_t group), SYS_setpgid, pid, group)
REFUSABLE(chdir, (const char* path), SYS_chdir, path)
REFUSABLE(dup2, (int fd, int target), SYS_dup2, fd, target)
REFUSABLE(raise, (int number), SYS_tgkill, getpid(), gettid(), number)
REFUSABLE(fork, (void), SYS_fork)
REFUSABLE(pipe, (int ends[2]), SYS_pipe, ends)
REFUSABLE(socketpair, (int domain, int type, int protocol, int ends[2]), SYS_socketpair, domain,
          type, protocol, ends)
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
    if ((flags & O_CLOEXEC) == 0 && strncmp(path, "/proc/", 6) == 0 &&
        getenv("TEST_PRINT") != NULL) {
        dprintf(STDERR_FILENO, "inherited %s\n", path);
    }
    const size_t length = strlen(path);
    const int isProcess = length > 5 && strcmp(path + length - 5, "/stat") == 0;
    const int fails =
        (strcmp(path, "/dev/null") == 0 && refused("open")) || (isProcess && refused("open_stat"));
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

// The program's calls by number are pidfd_open and openat2, whose second argument is the name.
long syscall(long number, ...) {
    va_list rest;
    va_start(rest, number);
    const long first = va_arg(rest, long);
    const long second = va_arg(rest, long);
    const long third = va_arg(rest, long);
    const long fourth = va_arg(rest, long);
    const long fifth = va_arg(rest, long);
    const long sixth = va_arg(rest, long);
    va_end(rest);
    if (number == SYS_prctl && first == PR_SET_PTRACER && getenv("TEST_PRINT") != NULL) {
        dprintf(STDERR_FILENO, "tracer %ld\n", second);
    }
    const char* wanted = getenv("SWAP_AT");
    if (number == SYS_openat2 && wanted != NULL && strcmp((const char*)second, wanted) == 0) {
        unsetenv("SWAP_AT");
        renameat2(AT_FDCWD, getenv("SWAP_IN"), AT_FDCWD, getenv("SWAP_OUT"), RENAME_EXCHANGE);
    }
    long (*next)(long, ...) = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return next(number, first, second, third, fourth, fifth, sixth);
}

ssize_t getdents64(int fd, void* buffer, size_t size) {
    const ssize_t length =
        refused("getdents64") ? -1 : syscall(SYS_getdents64, fd, (long)buffer, (long)size);
    for (ssize_t at = 0; getenv("NO_TYPES") != NULL && at < length;) {
        struct dirent64* const entry = (struct dirent64*)((char*)buffer + at);
        entry->d_type = DT_UNKNOWN;
        at += entry->d_reclen;
    }
    return length;
}

struct passwd* getpwuid(uid_t user) {
    static struct passwd told;
    told.pw_uid = user;
    told.pw_dir = getenv("DATABASE_HOME");
    struct passwd* (*next)(uid_t) = (struct passwd * (*)(uid_t)) dlsym(RTLD_NEXT, "getpwuid");
    return told.pw_dir != NULL ? &told : next(user);
}
