// OpenEventLogW and its like: event logs of this machine, by name or by path.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstring>
#include <memory>
#include <mutex>
#include <string>

#include "win32/eventlog/evt_reader.h"
#include "win32/eventlog/evt_writer.h"
#include "win32/eventlog/log_claim.h"
#include "win32/eventlog/log_names.h"
#include "win32/files/file_watch.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/security/accounts.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// While it lives, and the event does, which it does not keep, the event is pulsed each time that records were appended
// to the log or the log was cleared, by whatever process: the wait that is going on, or else the next one, returns once
// for it. So a follower that waits, reads to the end and waits again misses nothing and does not spin, although its
// event may be a manual-reset one that it never resets.
class LOG_NOTIFICATION {
public:
    LOG_NOTIFICATION(const std::string& path, const std::shared_ptr<KERNEL_OBJECT>& event);

private:
    // What a change of the log changes: its file, or the number of its next record. Appending writes the header last,
    // so the number has moved when the last of the file's changes is reported; the ones before it cause no signal.
    struct MARK {
        unsigned long long device = 0, file = 0;
        unsigned current = 0;
        bool operator==(const MARK&) const = default;
    };
    MARK Look() const;
    void Changed();

    const std::string log;
    const std::weak_ptr<KERNEL_OBJECT> woken;
    std::mutex lock;  // guards seen
    MARK seen;
    std::unique_ptr<FILE_WATCH> watch;  // last: its calls end before the rest goes
};

LOG_NOTIFICATION::LOG_NOTIFICATION(const std::string& path, const std::shared_ptr<KERNEL_OBJECT>& event)
    : log(path), woken(event), seen(Look()) {
    watch = std::make_unique<FILE_WATCH>(path, [this] { Changed(); });
    Changed();  // what happened before the watch began
}

LOG_NOTIFICATION::MARK LOG_NOTIFICATION::Look() const {
    MARK mark;
    const DESCRIPTOR file(OpenRootFile(log, O_RDONLY | O_NONBLOCK));
    if (!file) return mark;
    struct stat about;
    EVT_HEADER header;
    if (fstat(file.Get(), &about) == 0) {
        mark.device = about.st_dev;
        mark.file = about.st_ino;
    }
    if (pread(file.Get(), &header, sizeof(header), 0) == sizeof(header)) mark.current = header.current;
    return mark;
}

void LOG_NOTIFICATION::Changed() {
    const std::lock_guard guard(lock);
    const MARK mark = Look();
    if (mark == seen) return;
    seen = mark;
    if (const auto event = woken.lock()) PulseEventObject(*event);
}

// Apart from the handle's object, since the end of an event unmarks it: that must not end a notification.
struct LOG_READER {
    std::mutex lock;
    EVT_READER reader;
    unsigned followed = 0;  // how many times NotifyChangeEventLog was asked to follow it
};

// What an event-log handle stands for. Its calls may come from several threads.
struct OPEN_LOG final : KERNEL_OBJECT {
    std::u16string name;
    const std::shared_ptr<LOG_READER> shared = std::make_shared<LOG_READER>();
    std::mutex& lock = shared->lock;  // guards the rest
    EVT_READER& reader = shared->reader;
    std::unique_ptr<LOG_NOTIFICATION> notification;
};

bool IsOfMachineRoot(const std::string& path) { return path.starts_with(MachinePath(EventLogFolder) + "/"); }

BOOL Result(DWORD error) { return error == ERROR_SUCCESS ? TRUE : FailWith(error); }

bool OneOf(DWORD flags, DWORD a, DWORD b) { return ((flags & a) != 0) != ((flags & b) != 0); }

bool ValidFlags(DWORD flags) {
    return OneOf(flags, EVENTLOG_SEQUENTIAL_READ, EVENTLOG_SEEK_READ) &&
           OneOf(flags, EVENTLOG_FORWARDS_READ, EVENTLOG_BACKWARDS_READ) && flags <= 0xF;
}

BOOL Numbers(HANDLE handle, PDWORD count, PDWORD oldest) {
    const auto log = ObjectAs<OPEN_LOG>(handle);
    if (!log) return FALSE;
    if (count == nullptr || oldest == nullptr) return FailWith(ERROR_INVALID_PARAMETER);
    const std::lock_guard guard(log->lock);
    DWORD current;
    return Result(log->reader.Numbers(current, *oldest, *count));
}

}  // namespace
}  // namespace win32

HANDLE WINAPI OpenEventLogW(LPCWSTR server, LPCWSTR name) {
    if (name == nullptr) return win32::NullWith(ERROR_INVALID_PARAMETER);
    if (server != nullptr && *server != 0) return win32::NullWith(win32::RpcServerUnavailable);
    const std::string path = win32::LogFile(name);
    if (path.empty()) return nullptr;
    const auto log = std::make_shared<win32::OPEN_LOG>();
    log->name = name;
    if (log->reader.Open(path)) {
        if (win32::IsOfMachineRoot(path) && !win32::ClaimLog(path)) return nullptr;
        return win32::NewHandle(log);
    }
    // The Security log needs a privilege, and says so.
    if (GetLastError() == ERROR_ACCESS_DENIED && win32::SameName(name, u"Security"))
        SetLastError(ERROR_PRIVILEGE_NOT_HELD);
    return nullptr;
}

BOOL WINAPI CloseEventLog(HANDLE handle) {
    return win32::ObjectAs<win32::OPEN_LOG>(handle) != nullptr && win32::RemoveHandle(handle);
}

BOOL WINAPI ReadEventLogW(HANDLE handle, DWORD flags, DWORD offset, LPVOID buffer, DWORD bytes, DWORD* bytesRead,
                          DWORD* bytesNeeded) {
    const auto log = win32::ObjectAs<win32::OPEN_LOG>(handle);
    if (!log) return FALSE;
    const bool aligned = reinterpret_cast<uintptr_t>(buffer) % alignof(EVENTLOGRECORD) == 0;
    if (!win32::ValidFlags(flags) || !buffer || !aligned || bytes > win32::MaxReadBytes || !bytesRead || !bytesNeeded)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    const bool forwards = (flags & EVENTLOG_FORWARDS_READ) != 0;
    const std::lock_guard guard(log->lock);
    *bytesRead = *bytesNeeded = 0;
    if (flags & EVENTLOG_SEEK_READ)
        if (const DWORD error = log->reader.Seek(offset, forwards); error != ERROR_SUCCESS)
            return win32::FailWith(error);
    return win32::Result(log->reader.Read(forwards, static_cast<BYTE*>(buffer), bytes, *bytesRead, *bytesNeeded));
}

BOOL WINAPI GetNumberOfEventLogRecords(HANDLE handle, PDWORD count) {
    DWORD ignored;
    return win32::Numbers(handle, count, &ignored);
}

BOOL WINAPI GetOldestEventLogRecord(HANDLE handle, PDWORD number) {
    DWORD ignored;
    return win32::Numbers(handle, &ignored, number);
}

// One event a log handle: a second call puts its event in the first one's place. A caller that closes the event does
// not follow the log any more, and the mark in its file shows it.
BOOL WINAPI NotifyChangeEventLog(HANDLE handle, HANDLE event) {
    const auto log = win32::ObjectAs<win32::OPEN_LOG>(handle);
    const auto woken = log ? win32::ObjectOf(event) : nullptr;
    if (!woken) return FALSE;
    if (woken->WaitDescriptor() < 0) return win32::FailWith(ERROR_INVALID_HANDLE);
    auto notification = std::make_unique<win32::LOG_NOTIFICATION>(log->reader.Path(), woken);
    unsigned turn = 0;
    {
        const std::lock_guard guard(log->lock);
        log->notification.swap(notification);
        turn = ++log->shared->followed;
    }
    win32::OnEventEnd(*woken, [weak = std::weak_ptr(log->shared), turn] {
        const auto shared = weak.lock();
        if (!shared) return;
        const std::lock_guard guard(shared->lock);
        if (shared->followed == turn) shared->reader.Unmark();  // or it is followed with another event by now
    });
    return TRUE;
}

BOOL WINAPI ClearEventLogW(HANDLE handle, LPCWSTR backupFile) {
    const auto log = win32::ObjectAs<win32::OPEN_LOG>(handle);
    if (!log) return FALSE;
    if (backupFile != nullptr) return win32::FailWith(ERROR_NOT_SUPPORTED);
    return win32::ClearLogFile(log->reader.Path(), win32::LogMaxSize(log->name));
}
