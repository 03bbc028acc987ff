// peak_memory PROGRAM [ARGS...]: runs the program and prints its exit status and its peak resident
// memory in KiB. The kernel counts what a process held before it took up its program, too: hence
// a starter as small as this one.
#include <spawn.h>
#include <stdio.h>
#include <sys/resource.h>
#include <sys/wait.h>

extern char** environ;

int main(int argc, char** argv) {
    pid_t child = 0;
    int status = 0;
    struct rusage usage;
    if (argc < 2 || posix_spawn(&child, argv[1], NULL, NULL, argv + 1, environ) != 0 ||
        wait4(child, &status, 0, &usage) != child) {
        return 127;
    }
    printf("%d %ld\n", WIFEXITED(status) ? WEXITSTATUS(status) : -1, usage.ru_maxrss);
    return 0;
}
