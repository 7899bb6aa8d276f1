#include "eventlog/message_files.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/failure_event.h"
#include "eventlog/event_log.h"
#include "platform/error_text.h"
#include "platform/registry_values.h"
#include "resources/message_ids.h"

namespace keldwick {

namespace {

// A log that was opened from a file has no registered sources.
bool IsFilePath(const STRING& logName) {
    const TEXT_VIEW name = logName.View();
    return name.starts_with(TEXT("\\\\")) || (name.size() > 1 && name[1] == TEXT(':'));
}

void LogExpansionFailure() {
    const DWORD error = GetLastError();
    DebugPrint(TEXT("ExpandEnvironmentStrings failed. %s. Error code = %lu."), ErrorText(error), error);
}

// Where the expansion fails the value stays, with a message.
void ExpandEnvironment(STRING& value) {
    const DWORD units = ExpandEnvironmentStringsW(value.Text(), nullptr, 0);  // with the terminator
    if (units == 0) return LogExpansionFailure();
    STRING expanded(units - 1);
    if (ExpandEnvironmentStringsW(value.Text(), expanded.Buffer(), units) == 0) return LogExpansionFailure();
    if (expanded.View() != value.View()) value = STRING(expanded.Text());
}

// The message of that id in one file; empty when the file has none.
LOCAL_TEXT LoadMessage(const STRING& file, DWORD id, DWORD& length) {
    const MODULE_HANDLE module(
        LoadLibraryExW(file.Text(), nullptr, LOAD_LIBRARY_AS_DATAFILE | LOAD_WITH_ALTERED_SEARCH_PATH));
    if (!module) {
        const DWORD error = GetLastError();
        DebugPrint(TEXT("Uable to open message source file \"%s\". %s. Error code = %lu."), file, ErrorText(error),
                   error);
        return LOCAL_TEXT();
    }
    WCHAR* text = nullptr;
    length =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_HMODULE,
                       module.Get(), id, 0, reinterpret_cast<LPWSTR>(&text), 0, nullptr);
    if (length != 0) return LOCAL_TEXT(text);
    const DWORD error = GetLastError();
    if (error != ERROR_MR_MID_NOT_FOUND) {
        DebugPrint(TEXT("Format message failed. %s. Error code = %lu."), ErrorText(error), error);
    }
    return LOCAL_TEXT();
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

// The number of the insert whose digits begin at `at`, which is moved behind them. Above `most`: too big to be one.
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

LOCAL_TEXT FormatEventMessage(const EVENTLOGRECORD& record, const EVENT_LOG& log, DWORD& length) {
    length = 0;
    STRING path;
    if (!GetEventMessageFile(log, SourceName(record), path)) return LOCAL_TEXT();
    for (TEXT_VIEW rest = path.View(); !rest.empty();) {
        const size_t end = rest.find(TEXT(';'));
        const STRING file(rest.substr(0, end));
        rest = end == TEXT_VIEW::npos ? TEXT_VIEW() : rest.substr(end + 1);
        LOCAL_TEXT text = LoadMessage(file, record.EventID, length);
        if (text) return text;
    }
    return LOCAL_TEXT();
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

bool ExpandInserts(LOCAL_TEXT& text, DWORD length, const REPLACEMENT_STRINGS& strings) {
    const TEXT_VIEW stored(text.Get(), length);
    size_t units = 0;
    ForEachPiece(stored, strings, [&](TEXT_VIEW piece) { units += piece.size(); });

    LOCAL_TEXT expanded(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, (units + 1) * sizeof(WCHAR))));
    if (!expanded) return false;
    WCHAR* end = expanded.Get();
    ForEachPiece(stored, strings, [&](TEXT_VIEW piece) { end += piece.copy(end, piece.size()); });
    *end = 0;
    text = std::move(expanded);
    return true;
}

}  // namespace keldwick
