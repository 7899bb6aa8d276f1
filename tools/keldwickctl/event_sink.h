// Where the importers put what they read, and what they could not.
#pragma once

#include <string>

#include "win32/eventlog/evt_record.h"

class EVENT_SINK {
public:
    virtual ~EVENT_SINK() = default;
    virtual void Take(const win32::NEW_EVENT& event) = 0;
    virtual void TakeRecord(const EVENTLOGRECORD& record) = 0;  // a whole record of another log
    virtual void Unreadable(const std::string& what) = 0;       // one thing that is not in the log now, and why
};
