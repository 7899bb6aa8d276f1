// Reading one event record where it lies: its two names and its replacement strings; and the names of events. Records
// come from the system, which has checked their bounds.
#pragma once

#include <windows.h>

#include "platform/heap_buffer.h"
#include "platform/string.h"

namespace keldwick {

// The replacement strings of one record as pointers into it: valid only while the record's buffer is. An instance is
// meant to be used for one record after the other and then allocates only when a record has more strings than any
// before.
class REPLACEMENT_STRINGS {
public:
    // Takes the record's strings. Out of memory: the list is empty.
    void Decode(const EVENTLOGRECORD& record);
    void Clear() { count = 0; }

    DWORD Count() const { return count; }
    const WCHAR* operator[](DWORD index) const {  // from 0; must be below Count()
        return pointers.As<const WCHAR*>()[index];
    }

private:
    HEAP_BUFFER pointers;  // grows, never shrinks
    DWORD count = 0;
};

const WCHAR* SourceName(const EVENTLOGRECORD& record);
const WCHAR* ComputerName(const EVENTLOGRECORD& record);

// By the low 16 bits of the event ID: its name when the agent knows the event, else the number as decimal text.
STRING EventName(DWORD eventId);

const WCHAR* EventTypeName(WORD eventType);  // "<Unknown>" for a type that is none of the documented five

}  // namespace keldwick
