#include "identity/identity_file.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "diagnostics/debug_output.h"
#include "diagnostics/log_file.h"
#include "platform/error_text.h"
#include "platform/handles.h"
#include "service/settings.h"

namespace keldwick {

namespace {

constexpr size_t ChunkBytes = 65536;
constexpr LONGLONG ShareOfTime = 100;  // one part in so many may go into writing
constexpr LONGLONG BytesPerSecond = 32768;

// An unchanged file is written again this often: a recent time shows that it is right.
constexpr LONGLONG RefreshUnits = 60 * TIME_STAMP::UnitsPerSecond;

// The path beside the program file: its own name with another extension. Empty when that is not known.
STRING PathOf(const WCHAR* extension) {
    STRING path;
    GetModulePath(path);
    const size_t stop = path.View().rfind(TEXT('.'));
    if (stop == TEXT_VIEW::npos) return STRING();
    path.Resize(static_cast<DWORD>(stop));
    path.Append(extension);
    return path;
}

// Names come from events, and an attacker who tries to log on can put anything there.
void AppendQuoted(std::string& text, const STRING& value) {
    constexpr std::string_view digits = "0123456789abcdef";
    const STRING_UTF8 utf8(value);
    text += '"';
    for (const char unit : utf8.View()) {
        const auto byte = static_cast<BYTE>(unit);
        if (unit == '"' || unit == '\\') {
            (text += '\\') += unit;
        } else if (byte < 0x20 || byte == 0x7f) {
            ((text += "\\u00") += digits[byte >> 4]) += digits[byte & 15];
        } else {
            text += unit;
        }
    }
    text += '"';
}

void AppendEntry(std::string& text, const LOGON_ENTRY& entry) {
    AppendQuoted(text += "{\"address\":", entry.request.AddressText());
    AppendQuoted(text += ",\"user\":", entry.request.UserName());
    AppendQuoted(text += ",\"computer\":", entry.request.ComputerName());
    text += ",\"logon\":" + std::to_string(entry.logonTime.UnixSeconds()) + "}\n";
}

std::string Heading(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets, const TIME_STAMP& now) {
    return "{\"process\":" + std::to_string(GetCurrentProcessId()) +
           ",\"written\":" + std::to_string(now.UnixSeconds()) +
           ",\"ttl\":" + std::to_string(Settings.logonTtl.load()) +
           ",\"identities\":" + std::to_string(logons.Count()) + ",\"tickets\":" + std::to_string(tickets.Count()) +
           ",\"answered\":" + std::to_string(ReportCounts.answered) +
           ",\"failed\":" + std::to_string(ReportCounts.failed) +
           ",\"retried\":" + std::to_string(ReportCounts.retried) + "}\n";
}

// Empties the chunk into the file. False: the last error says why not.
bool Put(HANDLE file, std::string& chunk, LONGLONG& bytes) {
    DWORD written = 0;
    if (!WriteFile(file, chunk.data(), static_cast<DWORD>(chunk.size()), &written, nullptr)) return false;
    bytes += written;
    chunk.clear();
    return true;
}

bool WriteAll(const STRING& path, std::string chunk, const LOGON_TABLE& logons, LONGLONG& bytes) {
    const FILE_OWNER file(
        CreateFileW(path.Text(), GENERIC_WRITE, 0, nullptr, CREATE_ALWAYS, FILE_ATTRIBUTE_NORMAL, nullptr));
    if (!file) return false;
    for (const LOGON_ENTRY* entry = logons.First(); entry != nullptr; entry = LOGON_TABLE::Next(entry)) {
        AppendEntry(chunk, *entry);
        if (chunk.size() >= ChunkBytes && !Put(file.Get(), chunk, bytes)) return false;
    }
    return Put(file.Get(), chunk, bytes);
}

// The error code, or 0; adds the bytes that were written in either case.
DWORD Replace(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets, const TIME_STAMP& now, LONGLONG& bytes) {
    const STRING path = PathOf(TEXT(".identities")), fresh = PathOf(TEXT(".identities.new"));
    const bool done = WriteAll(fresh, Heading(logons, tickets, now), logons, bytes) &&
                      MoveFileExW(fresh.Text(), path.Text(), MOVEFILE_REPLACE_EXISTING);
    if (done) return ERROR_SUCCESS;
    const ERROR_CODE why;
    DeleteFileW(fresh.Text());  // the disk may be full
    return why.Get();
}

}  // namespace

IDENTITY_FILE::VERSION IDENTITY_FILE::VersionOf(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets) {
    return {logons.Changes(), tickets.Count(), ReportCounts};
}

// In the past, or 0: it is due now, as also when the clock was set back.
LONGLONG IDENTITY_FILE::UnitsToDue(const VERSION& current) const {
    const LONGLONG age = TIME_STAMP::Now().Units() - writtenAt.Units();
    const LONGLONG pause = current == written ? RefreshUnits : std::min(ShareOfTime * writingUnits, RefreshUnits);
    const LONGLONG bytesPause = writtenBytes * TIME_STAMP::UnitsPerSecond / BytesPerSecond;
    return age < 0 ? 0 : std::max(pause, bytesPause) - age;
}

DWORD IDENTITY_FILE::Update(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets) {
    const VERSION current = VersionOf(logons, tickets);
    const LONGLONG units = UnitsToDue(current);
    if (units <= 0) {
        Write(logons, tickets);
    } else if (current != written) {
        return static_cast<DWORD>(units / TIME_STAMP::UnitsPerMillisecond) + 1;
    }
    return INFINITE;
}

void IDENTITY_FILE::Write(const LOGON_TABLE& logons, const SERVICE_TICKET_TABLE& tickets) {
    const TIME_STAMP begin = TIME_STAMP::Now();
    writtenBytes = 0;
    const DWORD result = Replace(logons, tickets, begin, writtenBytes);
    if (result != ERROR_SUCCESS && result != error) {
        DebugPrintError(result, TEXT("Unable to write the list of identities"));
    }
    error = result;
    written = VersionOf(logons, tickets);
    writtenAt = begin;
    writingUnits = std::max<LONGLONG>(TIME_STAMP::Now().Units() - begin.Units(), 0);
}

}  // namespace keldwick
