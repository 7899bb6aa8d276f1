// The event log of a test build: the calls that read it, over the file Security.evt beside the program, which the test
// writes, and the one that writes it, into the file reported. wine has these calls, but its logs are always empty.
// Linked ahead of the import library, whose pointers these are; the program itself knows nothing of it. The file's ring
// is not to have gone round.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <vector>

namespace {

constexpr DWORD HeaderBytes = 48, Signature = 0x654C664C, FixedBytes = 56;

// One reading of the file.
struct CONTENT {
    std::vector<char> bytes;
    std::vector<const EVENTLOGRECORD*> records;

    DWORD Oldest() const { return records.empty() ? 0 : records.front()->RecordNumber; }
};

std::wstring Folder() {
    WCHAR path[MAX_PATH];
    std::wstring text(path, GetModuleFileNameW(nullptr, path, MAX_PATH));
    return text.substr(0, text.rfind(L'\\')) + L"\\eventlog";
}

CONTENT Load() {
    std::ifstream file((Folder() + L"\\Security.evt").c_str(), std::ios::binary);
    CONTENT content{std::vector<char>(std::istreambuf_iterator<char>(file), {}), {}};
    for (size_t at = HeaderBytes; at + FixedBytes <= content.bytes.size();) {
        const auto* const record = reinterpret_cast<const EVENTLOGRECORD*>(content.bytes.data() + at);
        if (record->Reserved != Signature || record->Length > content.bytes.size() - at) break;
        content.records.push_back(record);
        at += record->Length;
    }
    return content;
}

struct LOG {
    bool placed = false;  // before the first read there is no place: it begins at the end of its direction
    DWORD next = 0;       // the number of the record after the place
};

BOOL Fail(DWORD error) {
    SetLastError(error);
    return FALSE;
}

// ---- The calls ----

HANDLE WINAPI Open(LPCWSTR, LPCWSTR name) {
    if (lstrcmpiW(name, L"Security") != 0) return nullptr;
    return new LOG;
}

BOOL WINAPI Count(HANDLE, PDWORD count) {
    *count = static_cast<DWORD>(Load().records.size());
    return TRUE;
}

BOOL WINAPI Oldest(HANDLE, PDWORD number) {
    *number = Load().Oldest();
    return TRUE;
}

// Pulses the event when something changes in the folder, as the system does, and again for a while: the worker may not
// have waited. Lives until the program ends.
DWORD WINAPI Watch(void* event) {
    const HANDLE changes = FindFirstChangeNotificationW(
        Folder().c_str(), FALSE,
        FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE);
    while (WaitForSingleObject(changes, INFINITE) == WAIT_OBJECT_0) {
        FindNextChangeNotification(changes);
        for (int again = 0; again < 10; ++again, Sleep(20)) PulseEvent(event);
    }
    return 0;
}

BOOL WINAPI Notify(HANDLE, HANDLE event) {
    HANDLE own = nullptr;
    DuplicateHandle(GetCurrentProcess(), event, GetCurrentProcess(), &own, 0, FALSE, DUPLICATE_SAME_ACCESS);
    CloseHandle(CreateThread(nullptr, 0, Watch, own, 0, nullptr));
    return TRUE;
}

BOOL WINAPI Close(HANDLE log) {
    delete static_cast<LOG*>(log);
    return TRUE;
}

BOOL WINAPI Read(HANDLE handle, DWORD flags, DWORD, LPVOID buffer, DWORD room, DWORD* read, DWORD* needed) {
    LOG& log = *static_cast<LOG*>(handle);
    CONTENT content = Load();
    const bool forwards = (flags & EVENTLOG_FORWARDS_READ) != 0;
    auto& records = content.records;
    const DWORD end = records.empty() ? 1 : records.back()->RecordNumber + 1;
    if (!log.placed) log.next = forwards ? content.Oldest() : end;
    log.placed = true;
    if (log.next > end) return Fail(ERROR_EVENTLOG_FILE_CHANGED);  // cleared
    if (!forwards) std::reverse(records.begin(), records.end());
    *read = 0;
    for (const EVENTLOGRECORD* const record : records) {
        const DWORD number = record->RecordNumber;
        if (forwards ? number < log.next : number >= log.next) continue;
        if (record->Length > room - *read) {
            if (*read > 0) break;
            *needed = record->Length;
            return Fail(ERROR_INSUFFICIENT_BUFFER);
        }
        std::memcpy(static_cast<char*>(buffer) + *read, record, record->Length);
        *read += record->Length;
        log.next = forwards ? number + 1 : number;
    }
    return *read > 0 ? TRUE : Fail(ERROR_HANDLE_EOF);
}

// A line for each event: its type, its number, its strings.
BOOL WINAPI Report(HANDLE, WORD type, WORD, DWORD id, PSID, WORD count, DWORD, LPCWSTR* strings, LPVOID) {
    std::wofstream file((Folder() + L"\\reported").c_str(), std::ios::app);
    file << type << L' ' << std::hex << id;
    for (WORD i = 0; i < count; ++i) file << L'|' << strings[i];
    file << std::endl;
    return file ? TRUE : Fail(ERROR_WRITE_FAULT);
}

}  // namespace

extern "C" {
decltype(&OpenEventLogW) __imp_OpenEventLogW = Open;
decltype(&GetNumberOfEventLogRecords) __imp_GetNumberOfEventLogRecords = Count;
decltype(&GetOldestEventLogRecord) __imp_GetOldestEventLogRecord = Oldest;
decltype(&NotifyChangeEventLog) __imp_NotifyChangeEventLog = Notify;
decltype(&CloseEventLog) __imp_CloseEventLog = Close;
decltype(&ReadEventLogW) __imp_ReadEventLogW = Read;
decltype(&ReportEventW) __imp_ReportEventW = Report;
}
