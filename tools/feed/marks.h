// Marks: how far the feed was read, on the disk, so that the next run of the feed goes on there.
#pragma once

#include <chrono>
#include <string>

#include "tools/feed/console.h"
#include "tools/feed/log.h"
#include "tools/feed/state.h"

namespace tools::feed {

struct OPTIONS;

class MARKS {
public:
    using CLOCK = std::chrono::steady_clock;
    static constexpr std::chrono::milliseconds Pause{1000};  // between two marks

    // Loads what the last mark says. Throws COMMAND_ERROR for a name that another feed has.
    MARKS(const OPTIONS& given, const STATE_FILE& feedsFiles, LOG& feedsLog, CONSOLE& console);

    const POSITION& Position() const { return state; }  // of the last mark
    bool IsNew() const { return isNew; }                // no earlier run has marked a place in this file
    const COUNTS& Saved() const { return saved; }       // what of this run's counts the state file holds

    void NoteTaken() { wanted = true; }  // something was taken since the last mark
    // Places may change without a line: a file that is let go, one that was truncated.
    void NotePosition(const POSITION& position) { wanted = wanted || position.places != state.places; }

    CLOCK::time_point Due() const;  // of the next mark; max: none is wanted

    // Marks the position: everything up to it is in the log. Not while records are recognised: those of lines after the
    // position are in the log, too, before the record from which the next start would look for them. A failure is
    // reported, and the mark is wanted again; the `last` mark, after which there is no other, throws COMMAND_ERROR.
    void Mark(const POSITION& position, unsigned long long behind, const COUNTS& counts, bool last);

    // Whether the batch has to wait for a mark: no more is written than could be recognised. Tries the mark again, when
    // it is the `last` time with the same exception.
    bool Holds(bool last);

private:
    [[noreturn]] void RefuseName(const std::string& why) const;
    bool IsMissed() const;
    void Save(bool last);
    bool SaveState();

    const OPTIONS& options;
    LOG& log;
    const STATE_FILE& files;
    STATE state;
    TROUBLE trouble, holding;
    COUNTS counts, saved;  // of this run, at the last mark; what of it the state file holds
    CLOCK::time_point tried;
    bool isNew = true;
    bool wanted = false;
};

}  // namespace tools::feed
