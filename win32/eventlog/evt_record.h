// One event record's bytes: what makes them a record, and how to build them.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "win32/eventlog/evt_format.h"

namespace win32 {

// Whether `bytes` begin with a record that is whole and safe to read without further checks: its length fits, is a
// multiple of 4 and stands at its end too; names, strings, SID and data lie inside it; texts are NUL-terminated.
// `bytes` must be aligned to 4.
bool IsWholeRecord(const BYTE* bytes, size_t available);

// What goes into a new record. Texts end at their first NUL. One object may serve for one event after another: so the
// memory of its texts is used again.
struct NEW_EVENT {
    DWORD id = 0;
    WORD type = EVENTLOG_SUCCESS;
    WORD category = 0;
    DWORD generated = 0, written = 0;  // seconds since 1970, UTC
    std::u16string source, computer;
    std::vector<std::u16string> strings;
    BYTES sid, data;

    // As for an event that is written now, of which nothing is known yet but how many strings it may have, which stand
    // as they were until they are assigned.
    void Begin(size_t stringCount);
};

// The record's bytes, its number left 0: the writer gives that. False, with last error ERROR_INVALID_PARAMETER: too
// many strings, or more than MaxRecordBytes.
bool BuildRecord(const NEW_EVENT& event, BYTES& record);

// Seconds since 1970 for now.
DWORD SecondsNow();

}  // namespace win32
