// RegisterEventSourceW and ReportEventW: events of the program's own, into the Application log and the system's
// journal.
#define SD_JOURNAL_SUPPRESS_LOCATION
#include <sys/uio.h>
#include <systemd/sd-journal.h>

#include <array>
#include <memory>
#include <mutex>
#include <string>

#include "win32/eventlog/event_text.h"
#include "win32/eventlog/evt_record.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/eventlog/log_names.h"
#include "win32/security/accounts.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr char16_t SourcesLog[] = u"Application";  // every source's log, as Windows has it for one it does not know

struct EVENT_SOURCE_OBJECT final : KERNEL_OBJECT {
    std::u16string source;
};

const char* TypeName(WORD type) {
    return type == EVENTLOG_ERROR_TYPE ? "error" : type == EVENTLOG_WARNING_TYPE ? "warning" : "information";
}

// syslog's levels
int Priority(WORD type) { return type == EVENTLOG_ERROR_TYPE ? 3 : type == EVENTLOG_WARNING_TYPE ? 4 : 6; }

// Where no journal runs this does nothing; the Application log is the record that counts.
void SendToJournal(const NEW_EVENT& event) {
    const std::string source = ToUtf8(event.source);
    const std::string fields[] = {"MESSAGE=" + EventText(event.id, event.strings),
                                  "PRIORITY=" + std::to_string(Priority(event.type)),
                                  "SYSLOG_IDENTIFIER=" + source,
                                  "EVENT_SOURCE=" + source,
                                  "EVENT_ID=" + std::to_string(event.id),
                                  std::string("EVENT_TYPE=") + TypeName(event.type)};
    std::array<iovec, std::size(fields)> parts;
    for (size_t i = 0; i < parts.size(); ++i) parts[i] = {const_cast<char*>(fields[i].data()), fields[i].size()};
    sd_journal_sendv(parts.data(), static_cast<int>(parts.size()));
}

bool AppendToLog(const NEW_EVENT& event) {
    BYTES record;
    if (!BuildRecord(event, record)) return false;
    const DWORD maxSize = LogMaxSize(SourcesLog);
    const std::string path = NewLogFile(SourcesLog);
    if (path.empty() || !CreateLogFile(path, maxSize)) return false;
    EVT_WRITER writer;
    return writer.Open(path, maxSize) && writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())) &&
           writer.Flush();
}

}  // namespace
}  // namespace win32

HANDLE WINAPI RegisterEventSourceW(LPCWSTR server, LPCWSTR source) {
    if (source == nullptr || *source == 0) return win32::NullWith(ERROR_INVALID_PARAMETER);
    if (server != nullptr && *server != 0) return win32::NullWith(win32::RpcServerUnavailable);
    const auto object = std::make_shared<win32::EVENT_SOURCE_OBJECT>();
    object->source = source;
    return win32::NewHandle(object);
}

BOOL WINAPI DeregisterEventSource(HANDLE source) {
    return win32::ObjectAs<win32::EVENT_SOURCE_OBJECT>(source) != nullptr && win32::RemoveHandle(source);
}

BOOL WINAPI ReportEventW(HANDLE source, WORD type, WORD category, DWORD id, PSID user, WORD strings, DWORD dataBytes,
                         LPCWSTR* texts, LPVOID) {
    const auto object = win32::ObjectAs<win32::EVENT_SOURCE_OBJECT>(source);
    if (!object) return FALSE;
    if (user != nullptr || dataBytes > 0) return win32::FailWith(ERROR_NOT_SUPPORTED);
    if (strings > 0 && texts == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    win32::NEW_EVENT event;
    event.id = id;
    event.type = type;
    event.category = category;
    event.generated = event.written = win32::SecondsNow();
    event.source = object->source;
    event.computer = win32::ComputerName();
    for (WORD i = 0; i < strings; ++i) event.strings.emplace_back(texts[i] != nullptr ? texts[i] : u"");
    const DWORD error = win32::AppendToLog(event) ? ERROR_SUCCESS : GetLastError();
    win32::SendToJournal(event);
    return error == ERROR_SUCCESS || win32::FailWith(error);
}
