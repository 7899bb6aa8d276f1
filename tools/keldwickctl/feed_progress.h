// What a feed says on standard error: troubles, and how far it is in a backlog.
#pragma once

#include <chrono>
#include <string>

class FEED_PROGRESS {
public:
    // `seconds` of a backlog without a pause pass between two lines of progress, where no terminal shows it as it goes.
    FEED_PROGRESS(int seconds, bool knowsItsEnd);
    ~FEED_PROGRESS() { Clear(); }
    FEED_PROGRESS(const FEED_PROGRESS&) = delete;
    FEED_PROGRESS& operator=(const FEED_PROGRESS&) = delete;

    void Tell(const std::string& what);

    // `behind`: bytes not read yet, of a source that knows its end.
    void Show(unsigned long long lines, unsigned long long behind);

    // The input pauses: what comes next is no backlog of what came before.
    void NotePause() { told = std::chrono::steady_clock::now(); }

    void Clear();  // what a terminal shows

private:
    const std::chrono::seconds interval;
    const bool knowsItsEnd, terminal;
    unsigned long long next;  // line count at which a terminal shows it anew
    bool shown = false;
    std::chrono::steady_clock::time_point told = std::chrono::steady_clock::now();
};
