// From bytes to records: lines of bounded length, what makes records of the lines of one source, and the values as the
// sources write them. Everything a line holds is hostile until checked.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

#include "win32/eventlog/evt_record.h"

namespace tools::feed {

constexpr size_t MaxLineBytes = 1024 * 1024;

class LINE_TAKER {
public:
    virtual ~LINE_TAKER() = default;
    virtual void TakeLine(std::string_view line) = 0;          // without its end, LF or CR LF
    virtual void TakeTooLong(std::string_view beginning) = 0;  // how a line of more than MaxLineBytes began
    virtual bool Full() const { return false; }                // it takes nothing more for now
};

// Takes a stream of bytes apart into lines.
class LINES {
public:
    // Gives the lines that end in the bytes, until the taker is full. How many of the bytes were taken: those of the
    // lines given, and when the taker is not full the rest, too.
    size_t Feed(std::string_view bytes, LINE_TAKER& taker);

    void Finish(LINE_TAKER& taker);  // what is left is the last line

    unsigned long long Pending() const { return pending; }  // bytes of the line that has not ended yet

private:
    void End(LINE_TAKER& taker);

    std::string line;  // of a line that is too long, its beginning only
    unsigned long long pending = 0;
};

// Makes event records of the lines of one source.
class LINE_READER {
public:
    enum RESULT {
        RECORD,      // `event` is to be written
        SKIPPED,     // understood, and nothing for the log
        UNREADABLE,  // not understood
    };

    virtual ~LINE_READER() = default;

    // Takes one line without its end. Unless it is a RECORD, `reason` says why. Throws only when memory runs out.
    virtual RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) = 0;

    // How many bytes of lines before the place where a feed goes on this reader wants to see again, to know what it
    // knew; what it makes of them is dropped.
    virtual size_t Memory() const { return 0; }
};

// Seconds since 1970 of a time as log shippers write it: ISO 8601 with T or a blank, offsets with or without a colon,
// a blank before them or not (without any it is UTC); /Date(ms)/; a number of seconds, milliseconds, microseconds or
// nanoseconds, with a fraction or not (cut off).
std::optional<DWORD> ParseShippedTime(std::string_view text);

}  // namespace tools::feed
