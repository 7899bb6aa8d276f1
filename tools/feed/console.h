// What a feed says on standard error: how far it is in a backlog, and troubles, each once when it begins and when it is
// over; and the stop that it is asked for.
#pragma once

#include <signal.h>

#include <chrono>
#include <string>

#include "win32/sync/descriptor.h"

namespace tools::feed {

class CONSOLE {
public:
    // `seconds` of a backlog without a pause pass between two lines of progress, where no terminal shows it as it goes.
    CONSOLE(int seconds, bool knowsItsEnd);
    ~CONSOLE() { Clear(); }
    CONSOLE(const CONSOLE&) = delete;
    CONSOLE& operator=(const CONSOLE&) = delete;

    void Say(const std::string& what);

    // `behind`: bytes not read yet, of a source that knows its end.
    void ShowProgress(unsigned long long lines, unsigned long long behind);

    // The input pauses: what comes next is no backlog of what came before.
    void NotePause() { said = std::chrono::steady_clock::now(); }

    void Clear();  // what a terminal shows

private:
    const std::chrono::seconds interval;
    const bool knowsItsEnd, terminal;
    unsigned long long next;  // line count at which a terminal shows it again
    bool shown = false;
    std::chrono::steady_clock::time_point said = std::chrono::steady_clock::now();
};

// Reports the start and the end of one kind of trouble, once each.
class TROUBLE {
public:
    // `end`: what is said when it is over; empty: nothing.
    TROUBLE(CONSOLE& where, const std::string& end) : console(where), ending(end) {}

    void Begin(const std::string& what);  // says so, unless it has begun
    void End();                           // says so, if it had begun
    void Forget() { lasts = false; }      // it is of no interest any more
    bool Lasts() const { return lasts; }

private:
    CONSOLE& console;
    const std::string ending;
    bool lasts = false;
};

// SIGTERM, SIGINT and, unless it is ignored, SIGHUP as a thing to wait for. While it lives the signals end nothing; a
// stop, once it came, stays. One at a time, before threads start.
class STOP_SIGNALS {
public:
    STOP_SIGNALS();  // throws COMMAND_ERROR
    ~STOP_SIGNALS();
    STOP_SIGNALS(const STOP_SIGNALS&) = delete;
    STOP_SIGNALS& operator=(const STOP_SIGNALS&) = delete;

    // Waits for a stop, for input on the descriptor `input` (-1: none; `ready` says whether there is some), or for the
    // time (max: without end). True: stop.
    bool Wait(int input, std::chrono::steady_clock::time_point until, bool& ready) const;

private:
    sigset_t before;
    win32::DESCRIPTOR signals;
};

}  // namespace tools::feed
