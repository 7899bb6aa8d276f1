#include "eventlog/record_dump.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "eventlog/event_log.h"
#include "eventlog/event_record.h"
#include "platform/registry_values.h"
#include "platform/time_stamp.h"
#include "resources/message_ids.h"

namespace keldwick {

// ---- Message texts ----

namespace {

// A log that was opened from a file has no registered sources.
bool IsFilePath(const STRING& logName) {
    const TEXT_VIEW name = logName.View();
    return name.starts_with(TEXT("\\\\")) || (name.size() > 1 && name[1] == TEXT(':'));
}

void LogExpansionFailure() { DebugPrintError(ERROR_CODE(), TEXT("ExpandEnvironmentStrings failed")); }

// Where the expansion fails the value stays, with a message.
void ExpandEnvironment(STRING& value) {
    const DWORD units = ExpandEnvironmentStringsW(value.Text(), nullptr, 0);  // with the terminator
    if (units == 0) return LogExpansionFailure();
    STRING expanded(units - 1);
    if (ExpandEnvironmentStringsW(value.Text(), expanded.Buffer(), units) == 0) return LogExpansionFailure();
    if (expanded.View() != value.View()) value = STRING(expanded.Text());
}

// The message of that id in one file; empty when the file has none.
LOCAL_TEXT_OWNER LoadMessage(const STRING& file, DWORD id, DWORD& length) {
    const MODULE_OWNER module(
        LoadLibraryExW(file.Text(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!module) {
        DebugPrintError(ERROR_CODE(), TEXT("Uable to open message source file \"%s\""), file);
        return LOCAL_TEXT_OWNER();
    }
    WCHAR* text = nullptr;
    length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE,
                       module.Get(), id, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    if (length != 0) return LOCAL_TEXT_OWNER(text);
    const ERROR_CODE error;
    if (error.Get() != ERROR_MR_MID_NOT_FOUND) DebugPrintError(error, TEXT("Format message failed"));
    return LOCAL_TEXT_OWNER();
}

bool IsDigit(WCHAR unit) { return unit >= TEXT('0') && unit <= TEXT('9'); }

WCHAR EscapedUnit(WCHAR letter) {
    switch (letter) {
        case TEXT('n'):
            return 10;
        case TEXT('r'):
            return 13;
        case TEXT('t'):
            return 9;
        default:
            return letter;
    }
}

// The number of the insert whose digits begin at `at`, which is moved to their end. Above `most`: too big to be one.
DWORD ReadInsertNumber(TEXT_VIEW text, size_t& at, DWORD most) {
    DWORD number = 0;
    for (; at < text.size() && IsDigit(text[at]); ++at) {
        if (number <= most) number = number * 10 + static_cast<DWORD>(text[at] - TEXT('0'));
    }
    return number;
}

// Goes through a message's text and gives its result piece by piece, as text views.
template <typename TAKE>
void ForEachPiece(TEXT_VIEW text, const REPLACEMENT_STRINGS& strings, TAKE take) {
    for (size_t at = 0; at < text.size();) {
        if (text[at] != TEXT('%')) {
            take(text.substr(at++, 1));
        } else if (++at == text.size()) {
            return;  // a lone percent sign at the end is nothing
        } else if (IsDigit(text[at])) {
            const DWORD number = ReadInsertNumber(text, at, strings.Count());
            if (number >= 1 && number <= strings.Count()) take(TEXT_VIEW(strings[number - 1]));
        } else {
            const WCHAR unit = EscapedUnit(text[at++]);
            take(TEXT_VIEW(&unit, 1));
        }
    }
}

}  // namespace

LOCAL_TEXT_OWNER FormatEventMessage(const EVENTLOGRECORD& record, const EVENT_LOG& log, DWORD& length) {
    length = 0;
    STRING path;
    if (!GetEventMessageFile(log, SourceName(record), path)) return LOCAL_TEXT_OWNER();
    for (TEXT_VIEW rest = path.View(); !rest.empty();) {
        const size_t end = rest.find(TEXT(';'));
        const STRING file(rest.substr(0, end));
        rest = end == TEXT_VIEW::npos ? TEXT_VIEW() : rest.substr(end + 1);
        LOCAL_TEXT_OWNER text = LoadMessage(file, record.EventID, length);
        if (text) return text;
    }
    return LOCAL_TEXT_OWNER();
}

bool GetEventMessageFile(const EVENT_LOG& log, const WCHAR* source, STRING& path) {
    if (IsFilePath(log.Name())) return false;
    const STRING subKey =
        FormatString(TEXT("SYSTEM\\CurrentControlSet\\services\\EventLog\\%s\\%s"), log.Name(), source);
    REG_KEY key;
    const LSTATUS result = RegOpenKeyExW(HKEY_LOCAL_MACHINE, subKey.Text(), 0, KEY_READ, key.Put());
    if (result != ERROR_SUCCESS) {
        ReportFailureEvent(EVENTLOG_ERROR_TYPE, MSG_OPEN_REGISTRY_KEY, static_cast<DWORD>(result),
                           FormatString(TEXT("%s\\%s"), TEXT("HKEY_LOCAL_MACHINE"), subKey).Text());
        return false;
    }
    if (!RegGetString(key.Get(), TEXT("EventMessageFile"), path)) return false;
    ExpandEnvironment(path);
    return true;
}

bool ExpandInserts(LOCAL_TEXT_OWNER& text, DWORD length, const REPLACEMENT_STRINGS& strings) {
    const TEXT_VIEW stored(text.Get(), length);
    size_t units = 0;
    ForEachPiece(stored, strings, [&](TEXT_VIEW piece) { units += piece.size(); });

    LOCAL_TEXT_OWNER expanded(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, (units + 1) * sizeof(WCHAR))));
    if (!expanded) return false;
    WCHAR* end = expanded.Get();
    ForEachPiece(stored, strings, [&](TEXT_VIEW piece) { end += piece.copy(end, piece.size()); });
    *end = 0;
    text = std::move(expanded);
    return true;
}

// ---- Dumps ----

namespace {

constexpr DWORD HeldAndRaw = DEBUG_DEFER | DEBUG_RAW;

// Seconds since 1970, UTC, as local time.
STRING TimeText(DWORD secondsSince1970) {
    SYSTEMTIME fields{};
    TIME_STAMP::FromUnixSeconds(secondsSince1970).ToLocal().ToFields(fields);
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
    LOCAL_TEXT_OWNER text = FormatEventMessage(record, log, length);
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
