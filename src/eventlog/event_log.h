// The reader of an event log, and the owner of the identities that its records lead to. It skips what is already in the
// log, then hands every new record to the handler of its event ID. It does not know what a logon means: the table of
// handlers is given to it (the agent's: EventHandlers in identity/handlers.h). One thread uses it.
#pragma once

#include <windows.h>

#include <cstdint>
#include <span>

#include "eventlog/event_record.h"
#include "identity/identities.h"
#include "platform/handles.h"
#include "platform/heap_buffer.h"
#include "platform/string.h"
#include "platform/time_stamp.h"
#include "service/command_line.h"

namespace keldwick {

class EVENT_LOG;

// What is done with a record of one event ID, the whole 32 bits of which are compared.
struct EVENT_HANDLER {
    DWORD eventId;
    void (*handle)(const EVENTLOGRECORD& record, EVENT_LOG& log, const REPLACEMENT_STRINGS& strings);
};

// The records dispatched since the last reset: how many, and the record numbers of the first and the latest.
struct RECORD_COUNTERS {
    DWORD count = 0;
    DWORD first = 0;
    DWORD last = 0;

    void Add(const EVENTLOGRECORD& record) {
        if (count++ == 0) first = record.RecordNumber;
        last = record.RecordNumber;
    }
};

// Why EVENT_LOG::Process returned.
constexpr DWORD PROCESS_FAILED = 0;  // the log can no longer be read: pause, close, open, process again
constexpr DWORD PROCESS_STOPPED = 1;
constexpr DWORD PROCESS_SETTINGS_CHANGED = 2;

class EVENT_LOG {
public:
    // Both the options and the handlers must outlive the reader.
    EVENT_LOG(const COMMAND_LINE& commandLine, std::span<const EVENT_HANDLER> eventHandlers);

    // Opens the named log of this computer, trying again every 60 s. False: the service is stopping.
    bool Open(const WCHAR* name);

    // Gives the platform's result; true when nothing was open.
    bool Close();

    // Follows the log until one of the two events is signalled or the log cannot be read. Every wake-up, at least one
    // in 15 s, also runs the expiry sweep.
    DWORD Process(HANDLE stopEvent, HANDLE settingsEvent);

    // One read of as many whole records as fit; the buffer grows when a single record needs more. Gives 0 or the error
    // code; ERROR_EVENTLOG_FILE_CHANGED: the log was cleared and has been opened again.
    DWORD ReadRecords(DWORD flags, DWORD offset, HEAP_BUFFER& buffer, DWORD& bytesRead);

    // Counts the record, dumps it when the options ask for that, and runs the handler of its event ID. Always true.
    bool DispatchRecord(const EVENTLOGRECORD& record, RECORD_COUNTERS& counters);

    // Sweeps the identities, unless the last sweep ended less than a minute ago.
    void ExpireEntries();

    IDENTITIES& Identities() { return identities; }
    const COMMAND_LINE& Options() const { return options; }
    const STRING& Name() const { return logName; }

private:
    DWORD PositionToEnd(HEAP_BUFFER& buffer);
    DWORD Await(std::span<const HANDLE> events);
    DWORD Follow(std::span<const HANDLE> events, HEAP_BUFFER& buffer);
    DWORD DispatchNewRecords(HEAP_BUFFER& buffer, RECORD_COUNTERS& counters);
    DWORD ReopenCleared();
    const EVENT_HANDLER* HandlerOf(DWORD eventId) const;

    const COMMAND_LINE& options;
    const std::span<const EVENT_HANDLER> handlers;
    uint64_t marks = 0;  // of their event IDs: no handler has one whose mark is not among them
    STRING logName;      // the name of the latest successful Open
    EVENT_LOG_OWNER handle;
    REPLACEMENT_STRINGS strings;               // of the record being dispatched
    TIME_STAMP lastSweep = TIME_STAMP::Now();  // the end of the last sweep; at first the reader's beginning
    IDENTITIES identities;                     // goes before the log is closed
};

}  // namespace keldwick
