#include "eventlog/event_log.h"

#include "diagnostics/debug_output.h"
#include "eventlog/record_dump.h"
#include "service/stop.h"

namespace keldwick {

namespace {

constexpr DWORD ReadBufferBytes = 65536;
constexpr DWORD WakeUpMs = 15000;  // bounds the delay of heartbeats and expiries
constexpr ULONGLONG SweepMs = 60000;
constexpr DWORD ReadForwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_FORWARDS_READ;
constexpr DWORD ReadBackwards = EVENTLOG_SEQUENTIAL_READ | EVENTLOG_BACKWARDS_READ;

// What Process waits for, in the order of its handles, as the wait's result.
enum SLOT : DWORD { LOG_CHANGED = WAIT_OBJECT_0, STOP, SETTINGS_CHANGED };

// Besides the results of Process: the log was cleared, and is to be registered for again.
constexpr DWORD REGISTER_AGAIN = MAXDWORD;

// The error that ended reading, as a result of Process.
DWORD ResultOf(DWORD readError) { return readError == ERROR_EVENTLOG_FILE_CHANGED ? REGISTER_AGAIN : PROCESS_FAILED; }

// Calls `take` for every record, in order, until it gives false; false then.
template <typename TAKE>
bool ForEachRecord(const HEAP_BUFFER& buffer, DWORD bytes, TAKE take) {
    for (const BYTE *at = buffer.Data(), *end = at + bytes; at < end;) {
        const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(at);
        if (!take(record)) return false;
        at += record.Length;
    }
    return true;
}

// One bit of 64, by the low half of an event ID. The new events of logons have the numbers of the old ones and 4096, so
// a remainder would not keep them apart.
uint64_t MarkOf(DWORD eventId) { return uint64_t{1} << (eventId * 0x9E3779B1u >> 10 & 63); }

// Logs how much there is to skip; that it cannot be known changes nothing.
void LogExtent(HANDLE log) {
    DWORD count = 0;
    if (GetNumberOfEventLogRecords(log, &count)) {
        DebugPrint(TEXT("EVENT_LOG::Process: RecordCount = %lu"), count);
    } else {
        DebugPrintError(ERROR_CODE(), TEXT("Unable to get event record count"));
    }
    DWORD oldest = 0;
    if (GetOldestEventLogRecord(log, &oldest)) {
        DebugPrint(TEXT("EVENT_LOG::Process: OldestRecordNumber = %lu"), oldest);
    } else {
        DebugPrintError(ERROR_CODE(), TEXT("Unable to get oldest event record number"));
    }
}

}  // namespace

EVENT_LOG::EVENT_LOG(const COMMAND_LINE& commandLine, std::span<const EVENT_HANDLER> eventHandlers)
    : options(commandLine), handlers(eventHandlers) {
    for (const EVENT_HANDLER& handler : handlers) marks |= MarkOf(handler.eventId);
}

bool EVENT_LOG::Open(const WCHAR* name) {
    for (;;) {
        DebugPrint(TEXT("Opening %s event log ..."), TEXT("Security"));  // whatever the name
        handle.Reset(OpenEventLogW(nullptr, name));
        if (handle) {
            logName.Assign(name);
            return true;
        }
        DebugPrintError(ERROR_CODE(), TEXT("Uable to open the \"%s\" event log"), name);
        const DWORD result = WaitForSingleObject(StopEvent, RetryPauseMs);
        if (result == WAIT_TIMEOUT) continue;
        if (result != WAIT_OBJECT_0) StopService(TEXT("open event log wait failure"));
        return false;
    }
}

bool EVENT_LOG::Close() {
    const HANDLE log = handle.Release();
    return !log || CloseEventLog(log);
}

DWORD EVENT_LOG::Process(HANDLE stopEvent, HANDLE settingsEvent) {
    HEAP_BUFFER buffer;
    if (!buffer.Resize(ReadBufferBytes)) return PROCESS_FAILED;
    const HANDLE_OWNER changeEvent(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    if (!changeEvent) return PROCESS_FAILED;
    const HANDLE events[] = {changeEvent.Get(), stopEvent, settingsEvent};

    for (;;) {
        ResetEvent(changeEvent.Get());
        if (!NotifyChangeEventLog(handle.Get(), changeEvent.Get())) return PROCESS_FAILED;
        LogExtent(handle.Get());
        const DWORD error = PositionToEnd(buffer);
        const bool atEnd = error == ERROR_SUCCESS || error == ERROR_HANDLE_EOF;
        const DWORD result = atEnd ? Follow(events, buffer) : ResultOf(error);
        if (result != REGISTER_AGAIN) return result;
    }
}

// One buffer-full in each direction. The read position lies between two records: after the forwards read, only new
// records follow it.
DWORD EVENT_LOG::PositionToEnd(HEAP_BUFFER& buffer) {
    static constexpr struct {
        DWORD flags;
        const WCHAR* name;
    } directions[] = {{ReadBackwards, TEXT("BACKWARDS")}, {ReadForwards, TEXT("FORWARDS")}};

    for (const auto& direction : directions) {
        DWORD bytes = 0;
        if (const DWORD error = ReadRecords(direction.flags, 0, buffer, bytes)) return error;
        RECORD_COUNTERS counters;
        ForEachRecord(buffer, bytes, [&](const EVENTLOGRECORD& record) {
            counters.Add(record);
            return true;
        });
        DebugPrint(TEXT("PositionToEnd: %s, Records: Count = %lu, First = %lu, Last = %lu"), direction.name,
                   counters.count, counters.first, counters.last);
    }
    return ERROR_SUCCESS;
}

// Waits for one of the events, the wake-up interval at most. The worker is idle here, so this is the time to refresh
// the list for onlookers. If that was put off, the wait is split, and the list is refreshed when it is due.
DWORD EVENT_LOG::Await(std::span<const HANDLE> events) {
    const auto wait = [events](DWORD milliseconds) {
        return WaitForMultipleObjects(static_cast<DWORD>(events.size()), events.data(), FALSE, milliseconds);
    };
    const DWORD dueMs = identities.UpdateFile();
    if (dueMs >= WakeUpMs) return wait(WakeUpMs);
    const DWORD result = wait(dueMs);
    if (result != WAIT_TIMEOUT) return result;
    identities.UpdateFile();
    return wait(WakeUpMs - dueMs);
}

DWORD EVENT_LOG::Follow(std::span<const HANDLE> events, HEAP_BUFFER& buffer) {
    for (;;) {
        const DWORD result = Await(events);
        if (result == STOP) return PROCESS_STOPPED;
        if (result == SETTINGS_CHANGED) return PROCESS_SETTINGS_CHANGED;
        if (result == WAIT_FAILED) {
            DebugPrintError(ERROR_CODE(), TEXT("EVENT_LOG::Process: Wait for event log changes failed"));
            return PROCESS_FAILED;
        }
        if (result != LOG_CHANGED && result != WAIT_TIMEOUT) continue;

        ExpireEntries();
        RECORD_COUNTERS counters;
        const DWORD error = DispatchNewRecords(buffer, counters);
        DebugPrintMasked(DEBUG_VERBOSE, TEXT("EVENT_LOG::Process: %s, Records: Count = %lu, First = %lu, Last = %lu"),
                         result == LOG_CHANGED ? TEXT("Signaled") : TEXT("Time-out"), counters.count, counters.first,
                         counters.last);
        if (error != ERROR_HANDLE_EOF) return ResultOf(error);
    }
}

// Gives the error that ended the reading; ERROR_SUCCESS: a dispatch ended it.
DWORD EVENT_LOG::DispatchNewRecords(HEAP_BUFFER& buffer, RECORD_COUNTERS& counters) {
    for (;;) {
        DWORD bytes = 0;
        if (const DWORD error = ReadRecords(ReadForwards, 0, buffer, bytes)) return error;
        const bool all = ForEachRecord(buffer, bytes,
                                       [&](const EVENTLOGRECORD& record) { return DispatchRecord(record, counters); });
        if (!all) return ERROR_SUCCESS;
    }
}

DWORD EVENT_LOG::ReadRecords(DWORD flags, DWORD offset, HEAP_BUFFER& buffer, DWORD& bytesRead) {
    for (;;) {
        DWORD needed = 0;
        if (ReadEventLogW(handle.Get(), flags, offset, buffer.Data(), buffer.Size(), &bytesRead, &needed)) {
            return ERROR_SUCCESS;
        }
        const DWORD error = GetLastError();
        bytesRead = 0;
        if (error == ERROR_HANDLE_EOF) return error;
        if (error == ERROR_INVALID_PARAMETER && (flags & EVENTLOG_SEEK_READ)) return error;
        if (error == ERROR_EVENTLOG_FILE_CHANGED) return ReopenCleared();
        if (error != ERROR_INSUFFICIENT_BUFFER || needed <= buffer.Size()) {  // no larger buffer would help
            DebugPrintError(error, TEXT("Unable to read the %s event log"), logName);
            return error;
        }
        if (!buffer.Resize(needed)) {
            DebugPrint(TEXT("Failed to reallocate %lu bytes of memory."), needed);
            return ERROR_NOT_ENOUGH_MEMORY;
        }
    }
}

// The log was cleared: its handle is of no more use.
DWORD EVENT_LOG::ReopenCleared() {
    DebugPrint(TEXT("%s event log has been cleared"), logName);
    handle.Reset();
    handle.Reset(OpenEventLogW(nullptr, logName.Text()));
    if (!handle) {
        const ERROR_CODE error;
        DebugPrintError(error, TEXT("Uable to reopen the %s event log"), logName);
        return error.Get();
    }
    DebugPrint(TEXT("%s event log reopened"), logName);
    return ERROR_EVENTLOG_FILE_CHANGED;
}

void EVENT_LOG::ExpireEntries() {
    if (lastSweep.ElapsedMs() <= SweepMs) return;
    identities.Sweep();
    lastSweep = TIME_STAMP::Now();
}

const EVENT_HANDLER* EVENT_LOG::HandlerOf(DWORD eventId) const {
    if ((marks & MarkOf(eventId)) == 0) return nullptr;
    for (const EVENT_HANDLER& handler : handlers) {
        if (handler.eventId == eventId) return &handler;
    }
    return nullptr;
}

// Most records are of no interest: those only cost a look at the marks of the event IDs that have handlers.
bool EVENT_LOG::DispatchRecord(const EVENTLOGRECORD& record, RECORD_COUNTERS& counters) {
    counters.Add(record);
    const EVENT_HANDLER* const handler = HandlerOf(record.EventID);
    const bool dump = handler ? options.dumpPertinent : options.dumpNonPertinent;
    if (!handler && !dump) return true;

    strings.Decode(record);
    if (dump) DumpEventRecord(record, *this, strings, DUMP_STRINGS | DUMP_DATA);
    if (handler) handler->handle(record, *this, strings);
    strings.Clear();
    return true;
}

}  // namespace keldwick
