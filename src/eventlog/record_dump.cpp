#include "eventlog/record_dump.h"

#include "diagnostics/debug_output.h"
#include "eventlog/event_log.h"
#include "eventlog/event_names.h"
#include "eventlog/message_files.h"

namespace keldwick {

namespace {

constexpr DWORD HeldAndRaw = DEBUG_DEFER | DEBUG_RAW;

// Seconds since 1970, UTC, as local time.
STRING TimeText(DWORD secondsSince1970) {
    constexpr ULONGLONG secondsFrom1601To1970 = 11644473600ull;
    constexpr ULONGLONG unitsPerSecond = 10000000;  // of 100 ns
    const ULONGLONG units = (secondsSince1970 + secondsFrom1601To1970) * unitsPerSecond;
    const FILETIME utc{static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
    FILETIME local{};
    SYSTEMTIME fields{};
    FileTimeToLocalFileTime(&utc, &local);
    FileTimeToSystemTime(&local, &fields);
    return FormatString(TEXT("%d/%d/%d %.2d:%.2d:%.2d"), fields.wMonth, fields.wDay, fields.wYear, fields.wHour,
                        fields.wMinute, fields.wSecond);
}

void DumpHeader(const EVENTLOGRECORD& record) {
    DebugPrintMasked(DEBUG_DEFER,
                     TEXT("\nEVENT_%s\n    RecordNumber: %lu\n    Severity: %lu\n    Facility: %lu\n    Time stamp: "
                          "%s\n    Type: %s\n    Source: %s\n    Computer: %s"),
                     EventName(record.EventID), record.RecordNumber, record.EventID >> 30,
                     (record.EventID >> 16) & 0xFFF, TimeText(record.TimeGenerated), EventTypeName(record.EventType),
                     SourceName(record), ComputerName(record));
}

void DumpMessage(const EVENTLOGRECORD& record, const EVENT_LOG& log, const REPLACEMENT_STRINGS& strings, DWORD detail) {
    DWORD length = 0;
    LOCAL_TEXT text = FormatEventMessage(record, log, length);
    if (!text) {
        DebugPrintMasked(HeldAndRaw, TEXT("    Message not available"));
        return;
    }
    if (detail & DUMP_MESSAGE) DebugPrintMasked(DEBUG_RAW, TEXT("    Message: {%s}"), text.Get());
    if ((detail & DUMP_FORMATTED_MESSAGE) && ExpandInserts(text, length, strings)) {
        DebugPrintMasked(HeldAndRaw, TEXT("    Formatted Message: {%s}"), text.Get());
    }
}

void DumpStrings(const REPLACEMENT_STRINGS& strings) {
    if (strings.Count() == 0) DebugPrintMasked(HeldAndRaw, TEXT("    No replacement strings"));
    for (DWORD i = 0; i < strings.Count(); ++i) {
        DebugPrintMasked(HeldAndRaw, TEXT("    %%%lu: {%s}"), i + 1, strings[i]);
    }
}

void DumpData(const EVENTLOGRECORD& record) {
    if (record.DataLength == 0) return;
    STRING data;
    data.HexText(reinterpret_cast<const BYTE*>(&record) + record.DataOffset, record.DataLength, false, 4, TEXT(' '));
    DebugPrintMasked(HeldAndRaw, TEXT("    Data length: %lu\n    Data: %s"), record.DataLength, data);
}

}  // namespace

void DumpEventRecord(const EVENTLOGRECORD& record, const EVENT_LOG& log, const REPLACEMENT_STRINGS& strings,
                     DWORD detail) {
    if (log.Options().miniDump) {
        DebugPrint(TEXT("\nEvent = %s, RecordNumber = %lu"), EventName(record.EventID), record.RecordNumber);
        return;
    }
    DumpHeader(record);
    if (detail & (DUMP_MESSAGE | DUMP_FORMATTED_MESSAGE)) DumpMessage(record, log, strings, detail);
    if (detail & DUMP_STRINGS) DumpStrings(strings);
    if (detail & DUMP_DATA) DumpData(record);
    FlushDebugOutput(false);
}

}  // namespace keldwick
