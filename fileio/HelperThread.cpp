#include "HelperThread.h"

#include <pthread.h>
#include <signal.h>

std::thread StartHelperThread(std::function<void()> work) {
    sigset_t interruptions, before;
    sigemptyset(&interruptions);
    for (int sig : {SIGINT, SIGTERM, SIGHUP})
        sigaddset(&interruptions, sig);
    // a new thread inherits its creator's mask; the creator gets its own back at once
    pthread_sigmask(SIG_BLOCK, &interruptions, &before);
    struct Restore {
        const sigset_t& mask;
        ~Restore() { pthread_sigmask(SIG_SETMASK, &mask, nullptr); }
    } restore{before};
    return std::thread(std::move(work));
}
