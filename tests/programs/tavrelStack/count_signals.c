/* A process of 200 threads that counts SIGRTMIN. Writes a line when it can be signalled, and
 * another once as many have come as standard input then names. Those queue, so that none may be
 * missing. */
#include <pthread.h>
#include <signal.h>
#include <stdatomic.h>
#include <stdio.h>
#include <unistd.h>

/* While a handler blocks the signal in one thread, the next one comes to another. */
static atomic_int count;
static atomic_int wanted = -1;

static void add(int signal) {
    (void)signal;
    ++count;
}

static void* waitForEver(void* nothing) {
    while (pause() != 0) {
    }
    return nothing;
}

static void* readWanted(void* nothing) {
    int number = 0;
    if (scanf("%d", &number) == 1) {
        wanted = number;
    }
    return nothing;
}

int main(void) {
    signal(SIGRTMIN, add);
    pthread_t thread;
    for (int i = 2; i < 200; ++i) {
        pthread_create(&thread, NULL, waitForEver, NULL);
    }
    pthread_create(&thread, NULL, readWanted, NULL);
    puts("ready");
    fflush(stdout);
    while (count != wanted) {
    }
    puts("all");
    return 0;
}
