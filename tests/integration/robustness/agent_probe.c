/* Loaded into an agent with LD_PRELOAD; shares three words with the test through the file that KELV_PROBE
 * names:
 *  - the seconds by which the wall clock runs ahead, so that a test need not wait for the cache to age;
 *  - the bytes that the heap holds, written each time that the agent goes to sleep;
 *  - the number of signals SIGRTMIN that interrupted the agent. */
#define _GNU_SOURCE
#include <dlfcn.h>
#include <fcntl.h>
#include <malloc.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/select.h>
#include <time.h>
#include <unistd.h>

struct Shared {
    volatile long shift;
    volatile long heap;
    volatile long interruptions;
};

static struct Shared* shared;

static void Interrupt(int number) {
    (void)number;
    ++shared->interruptions;
}

__attribute__((constructor)) static void MapShared(void) {
    const char* path = getenv("KELV_PROBE");
    const int file = path != NULL ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (file >= 0) {
        void* map = mmap(NULL, sizeof *shared, PROT_READ | PROT_WRITE, MAP_SHARED, file, 0);
        close(file);
        shared = map != MAP_FAILED ? map : NULL;
    }
    if (shared != NULL) {
        const struct sigaction action = {.sa_handler = Interrupt}; /* system calls are not started again */
        sigaction(SIGRTMIN, &action, NULL);
    }
}

time_t time(time_t* out) {
    struct timespec now;
    clock_gettime(CLOCK_REALTIME, &now);
    const time_t result = now.tv_sec + (shared != NULL ? shared->shift : 0);
    if (out != NULL) {
        *out = result;
    }
    return result;
}

int select(int count, fd_set* readable, fd_set* writable, fd_set* exceptional, struct timeval* timeout) {
    static int (*real)(int, fd_set*, fd_set*, fd_set*, struct timeval*);
    if (real == NULL) {
        real = (int (*)(int, fd_set*, fd_set*, fd_set*, struct timeval*))dlsym(RTLD_NEXT, "select");
    }
    if (shared != NULL) {
        const struct mallinfo2 heap = mallinfo2();
        shared->heap = (long)(heap.uordblks + heap.hblkhd);
    }
    return real(count, readable, writable, exceptional, timeout);
}
