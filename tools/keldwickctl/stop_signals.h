// SIGTERM, SIGINT and, unless it is ignored, SIGHUP as a thing to wait for.
#pragma once

#include <signal.h>

// While it lives the signals end nothing; a stop, once it came, stays. One at a time, before threads start.
class STOP_SIGNALS {
public:
    STOP_SIGNALS();  // throws COMMAND_ERROR
    ~STOP_SIGNALS();
    STOP_SIGNALS(const STOP_SIGNALS&) = delete;
    STOP_SIGNALS& operator=(const STOP_SIGNALS&) = delete;

    // Waits for a stop, for input on the descriptor `input` (-1: none; `ready` says whether there is some), or for the
    // time (-1: without end). True: stop.
    bool Wait(int input, int milliseconds, bool* ready = nullptr) const;

private:
    sigset_t before;
    int fd = -1;
};
