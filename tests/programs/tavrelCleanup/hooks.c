// Preloaded into the cleanup program: just before it opens the folder SWAP_AT, the paths SWAP_IN
// and SWAP_OUT are swapped, as another process may do between two of its calls. With NO_TYPES,
// folders don't tell which of their entries are folders, as on some file systems. DATABASE_HOME is
// the home folder that the user data base tells.

// NOLINTNEXTLINE(bugprone-reserved-identifier): the system's own name for its extensions
#define _GNU_SOURCE
#include <dirent.h>
#include <dlfcn.h>
#include <fcntl.h>
#include <pwd.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>

// The program's calls by number are pidfd_open and openat2, whose second argument is the name.
long syscall(long number, ...) {
    va_list rest;
    va_start(rest, number);
    const long first = va_arg(rest, long);
    const long second = va_arg(rest, long);
    const long third = va_arg(rest, long);
    const long fourth = va_arg(rest, long);
    va_end(rest);
    const char* wanted = getenv("SWAP_AT");
    if (number == SYS_openat2 && wanted != NULL && strcmp((const char*)second, wanted) == 0) {
        unsetenv("SWAP_AT");
        renameat2(AT_FDCWD, getenv("SWAP_IN"), AT_FDCWD, getenv("SWAP_OUT"), RENAME_EXCHANGE);
    }
    long (*next)(long, ...) = (long (*)(long, ...))dlsym(RTLD_NEXT, "syscall");
    return next(number, first, second, third, fourth);
}

ssize_t getdents64(int fd, void* buffer, size_t size) {
    const ssize_t length = syscall(SYS_getdents64, fd, (long)buffer, (long)size);
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
