// Threads that leave the program's signals to its main thread.
#pragma once

#include <pthread.h>

#include <csignal>
#include <thread>
#include <utility>

namespace Vessad::Libvirt {

// A new thread that runs `function` with every signal blocked.
template <class Function>
std::thread SignalFreeThread(Function&& function) {
    sigset_t every;
    sigset_t before;
    sigfillset(&every);
    pthread_sigmask(SIG_SETMASK, &every, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } const restore{before};
    return std::thread(std::forward<Function>(function));
}

}  // namespace Vessad::Libvirt
