#include "Signals.h"

#include <errno.h>
#include <pthread.h>
#include <signal.h>
#include <time.h>

namespace pmtools {

namespace {

sigset_t StopSet() {
    sigset_t set;
    sigemptyset(&set);
    sigaddset(&set, SIGINT);
    sigaddset(&set, SIGTERM);
    return set;
}

}  // namespace

void BlockStopSignals() {
    sigset_t set = StopSet();
    pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

void IgnoreBrokenPipes() {
    signal(SIGPIPE, SIG_IGN);
}

int TakeStopSignal(int ms) {
    sigset_t set = StopSet();
    struct timespec wait;
    wait.tv_sec = ms / 1000;
    wait.tv_nsec = static_cast<long>(ms % 1000) * 1000000L;
    int sig = sigtimedwait(&set, nullptr, &wait);
    return sig > 0 ? sig : 0;
}

int WaitStopSignal() {
    sigset_t set = StopSet();
    int sig = 0;
    while (sigwait(&set, &sig) != 0) {
    }
    return sig;
}

}  // namespace pmtools
