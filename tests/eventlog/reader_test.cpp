#include "reader_test.h"

#include "service/stop.h"

WRAP_CALL(BOOL, ReadEventLogW, (HANDLE l, DWORD f, DWORD o, LPVOID b, DWORD n, DWORD* r, DWORD* m),
          (l, f, o, b, n, r, m))
WRAP_CALL(HANDLE, OpenEventLogW, (LPCWSTR s, LPCWSTR l), (s, l))
WRAP_CALL(BOOL, NotifyChangeEventLog, (HANDLE l, HANDLE e), (l, e))
WRAP_CALL(BOOL, GetNumberOfEventLogRecords, (HANDLE l, PDWORD n), (l, n))
WRAP_CALL(BOOL, GetOldestEventLogRecord, (HANDLE l, PDWORD n), (l, n))
WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL m, BOOL i, LPCWSTR n), (s, m, i, n))
WRAP_CALL(DWORD, WaitForSingleObject, (HANDLE h, DWORD m), (h, m))
WRAP_CALL(HLOCAL, LocalAlloc, (UINT f, SIZE_T b), (f, b))
WRAP_CALL(HMODULE, LoadLibraryExW, (LPCWSTR p, HANDLE r, DWORD f), (p, r, f))
WRAP_CALL(DWORD, FormatMessageW, (DWORD f, LPCVOID s, DWORD m, DWORD l, LPWSTR b, DWORD z, void* a),
          (f, s, m, l, b, z, a))

extern "C" DWORD __real_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds);
extern "C" DWORD __wrap_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (keldwick::WaitScript && count == 3) {
        if (const auto result = keldwick::WaitScript(count, milliseconds)) {
            SetLastError(ERROR_INVALID_HANDLE);
            return *result;
        }
    }
    return __real_WaitForMultipleObjects(count, handles, all, milliseconds);
}

namespace keldwick {

CALL_PLAN &readLog = ReadEventLogW_calls, &openLog = OpenEventLogW_calls, &notifyChange = NotifyChangeEventLog_calls,
          &countRecords = GetNumberOfEventLogRecords_calls, &oldestRecord = GetOldestEventLogRecord_calls,
          &createEvent = CreateEventW_calls, &waitForOne = WaitForSingleObject_calls, &localAlloc = LocalAlloc_calls,
          &loadLibrary = LoadLibraryExW_calls, &formatMessage = FormatMessageW_calls;

LINES Handled;
std::function<std::optional<DWORD>(DWORD, DWORD)> WaitScript;

namespace {

void Handle(const EVENTLOGRECORD& record, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    std::string text = std::to_string(record.EventID) + ":";
    for (DWORD i = 0; i < strings.Count(); ++i) text += (i == 0 ? " " : " | ") + Narrow(strings[i]);
    Handled.push_back(text);
}

}  // namespace

const EVENT_HANDLER TestHandlers[2] = {{528, Handle}, {4624, Handle}};

READER_TEST::READER_TEST() {
    StopEvent = stop.Get();
    WaitScript = nullptr;
    Forget();
}

READER_TEST::~READER_TEST() {
    WaitScript = nullptr;
    StopEvent = nullptr;
}

void READER_TEST::Write(DWORD id, const std::vector<std::string>& strings) {
    const EVENT_SOURCE_HANDLE source(RegisterEventSourceW(nullptr, TEXT("Test")));
    ASSERT_TRUE(source);
    std::vector<STRING> wide;
    for (const std::string& text : strings) wide.emplace_back(text.c_str());
    std::vector<const WCHAR*> texts;
    for (const STRING& text : wide) texts.push_back(text.Text());
    ASSERT_TRUE(ReportEventW(source.Get(), EVENTLOG_AUDIT_SUCCESS, 0, id, nullptr, static_cast<WORD>(texts.size()), 0,
                             texts.data(), nullptr));
}

void READER_TEST::ClearLog() {
    const EVENT_LOG_HANDLE log(OpenEventLogW(nullptr, LogName));
    ASSERT_TRUE(log);
    ASSERT_TRUE(ClearEventLogW(log.Get(), nullptr));
}

void READER_TEST::Configure(const std::string& key, const std::string& values) {
    std::string text =
        "Windows Registry Editor Version 5.00\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application" +
        key + "]\r\n" + values + "\r\n";
    std::replace(text.begin(), text.end(), '\'', '"');
    root.Write("registry.reg", text);
}

DWORD READER_TEST::Follow(EVENT_LOG& log, std::vector<std::function<void()>> beforeWait) {
    ResetEvent(stop.Get());
    WaitScript = [this, beforeWait, next = size_t{0}](DWORD, DWORD milliseconds) mutable -> std::optional<DWORD> {
        EXPECT_EQ(15000u, milliseconds);
        if (next == beforeWait.size()) {
            SetEvent(stop.Get());
            return WAIT_OBJECT_0 + 1;
        }
        beforeWait[next++]();
        return std::nullopt;
    };
    const DWORD result = log.Process(stop.Get(), settings.Get());
    WaitScript = nullptr;
    return result;
}

LINES READER_TEST::Lines() {
    LINES lines = DEBUG_LINES::Seen();
    for (std::string& line : lines) {
        const size_t code = line.find(". Error code = ");
        if (code == std::string::npos) continue;
        const size_t text = line.rfind(". ", code - 1) + 2;
        line.replace(text, code - text, "?");
    }
    return lines;
}

void READER_TEST::Forget() {
    debugLines.Forget();
    Handled.clear();
}

}  // namespace keldwick
