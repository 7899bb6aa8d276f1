// Signals of the process are for its own threads: one of the layer's that took a signal would end the process with it.
#pragma once

#include <signal.h>

namespace win32 {

// Blocks all signals for the calling thread and for those that it starts, while in scope.
class SIGNALS_BLOCKED {
public:
    SIGNALS_BLOCKED() {
        sigset_t all;
        sigfillset(&all);
        pthread_sigmask(SIG_SETMASK, &all, &before);
    }
    ~SIGNALS_BLOCKED() { pthread_sigmask(SIG_SETMASK, &before, nullptr); }
    SIGNALS_BLOCKED(const SIGNALS_BLOCKED&) = delete;
    SIGNALS_BLOCKED& operator=(const SIGNALS_BLOCKED&) = delete;

private:
    sigset_t before;
};

}  // namespace win32
