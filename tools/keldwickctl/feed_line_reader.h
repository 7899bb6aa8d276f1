// What turns the lines of one source into event records. Everything a line holds is hostile until checked.
#pragma once

#include <string>
#include <string_view>

#include "win32/eventlog/evt_record.h"

class FEED_LINE_READER {
public:
    enum RESULT {
        RECORD,      // `event` is to be written
        SKIPPED,     // understood, and nothing for the log
        UNREADABLE,  // `reason` says why
    };

    virtual ~FEED_LINE_READER() = default;

    // Takes one line without its end. Does not throw but for memory that runs out.
    virtual RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) = 0;

    // How many bytes of lines before the place where a feed goes on this reader wants to see again, to know what it
    // knew; what it makes of them is dropped.
    virtual size_t Memory() const { return 0; }
};
