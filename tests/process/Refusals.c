// Preloaded to make one call of libc fail: TEST_REFUSE="CALL ERRNO NTH" lets the NTH call and all
// later ones fail, counted along a chain of forks. With TEST_SHOW_STATUS set, waitpid writes the
// status words it gets to descriptor 2, where the caller throws them away.

#define _GNU_SOURCE
#include <dlfcn.h>
#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

static char refused_call[32];
static int refused_errno;
static int refused_from;
static int calls;
static int show_status;

__attribute__((constructor)) static void configure(void) {
    const char* text = getenv("TEST_REFUSE");
    if (text != NULL) {
        sscanf(text, "%31s %d %d", refused_call, &refused_errno, &refused_from);
    }
    show_status = getenv("TEST_SHOW_STATUS") != NULL;
}

static int refused(const char* call) {
    if (strcmp(call, refused_call) != 0 || ++calls < refused_from) {
        return 0;
    }
    errno = refused_errno;
    return 1;
}

int close_range(unsigned first, unsigned last, int flags) {
    return refused("close_range") ? -1 : (int)syscall(SYS_close_range, first, last, flags);
}

int setsid(void) { return refused("setsid") ? -1 : (int)syscall(SYS_setsid); }

int setpgid(pid_t pid, pid_t group) {
    return refused("setpgid") ? -1 : (int)syscall(SYS_setpgid, pid, group);
}

int chdir(const char* path) { return refused("chdir") ? -1 : (int)syscall(SYS_chdir, path); }

int raise(int number) {
    return refused("raise") ? -1 : (int)syscall(SYS_tgkill, getpid(), gettid(), number);
}

int open(const char* path, int flags, ...) {
    va_list rest;
    va_start(rest, flags);
    const int mode = va_arg(rest, int);
    va_end(rest);
    return strcmp(path, "/dev/null") == 0 && refused("open") ? -1
                                                             : openat(AT_FDCWD, path, flags, mode);
}

int fcntl(int fd, int command, ...) {
    va_list rest;
    va_start(rest, command);
    const long argument = va_arg(rest, long);
    va_end(rest);
    const int inherits = command == F_SETFD && (argument & FD_CLOEXEC) == 0;
    return inherits && refused("fcntl") ? -1 : (int)syscall(SYS_fcntl, fd, command, argument);
}

pid_t fork(void) {
    return refused("fork") ? -1 : ((pid_t(*)(void))dlsym(RTLD_NEXT, "fork"))();
}

pid_t waitpid(pid_t pid, int* status, int options) {
    int own = 0;
    if (refused("waitpid")) {
        return -1;
    }
    const pid_t result = wait4(pid, &own, options, NULL);
    if (status != NULL) {
        *status = own;
    }
    if (show_status && result > 0) {
        dprintf(STDERR_FILENO, "waited %#x\n", own);
    }
    return result;
}
