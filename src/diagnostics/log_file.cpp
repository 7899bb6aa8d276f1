#include "diagnostics/log_file.h"

#include <process.h>

#include <atomic>
#include <iterator>
#include <optional>

#include "diagnostics/debug_line.h"
#include "platform/time_stamp.h"

namespace keldwick {

// ---- The file ----

namespace {

constexpr int MaxRenameAttempts = 999;  // after the one without a number
constexpr int MaxFirstOpens = 1000;     // bound on the attempts while another process keeps making the file

FILE_OWNER Create(const STRING& path, DWORD disposition) {
    return FILE_OWNER(CreateFileW(path.Text(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                  disposition, FILE_FLAG_WRITE_THROUGH | FILE_ATTRIBUTE_NORMAL, nullptr));
}

FILE_OWNER NotCreated(const STRING& path) {
    const ERROR_CODE error;
    DebugOutputError(TEXT("%s\n    "), FormatError(error, TEXT("Unable to create log file \"%s\""), path));
    return FILE_OWNER();
}

// Opens or makes the file; the message names what an existing file went through.
FILE_OWNER OpenOrCreate(const STRING& path, DWORD disposition, const WCHAR* existing) {
    SetLastError(ERROR_SUCCESS);
    FILE_OWNER file = Create(path, disposition);
    if (!file) return NotCreated(path);
    const bool existed = GetLastError() == ERROR_ALREADY_EXISTS;
    InternalPrint(TEXT("Log file \"%s\" %s"), path, existed ? existing : TEXT("created"));
    return file;
}

// The first open in the mode "Rename existing".
FILE_OWNER CreateRenaming(const DEBUG_STATE& state, const STRING& path) {
    for (int attempt = 0; attempt < MaxFirstOpens; ++attempt) {
        FILE_OWNER file = Create(path, CREATE_NEW);
        if (file) {
            InternalPrint(TEXT("Log file \"%s\" created"), path);
            return file;
        }
        if (GetLastError() != ERROR_FILE_EXISTS) break;
        if (!RenameLogFile(state, path, nullptr)) return FILE_OWNER();
    }
    return NotCreated(path);
}

FILE_OWNER FirstOpen(const DEBUG_STATE& state, const STRING& path) {
    if ((state.mode & DEBUG_MODE_RENAME) != 0) return CreateRenaming(state, path);
    if ((state.mode & DEBUG_MODE_OVERWRITE) != 0) return OpenOrCreate(path, CREATE_ALWAYS, TEXT("overwritten"));
    return OpenOrCreate(path, OPEN_ALWAYS, TEXT("opened"));
}

STRING NameStamp(const SYSTEMTIME& time) {
    if (time.wMinute != 0 || time.wSecond != 0) {
        return FormatString(TEXT("%04u-%02u-%02u@%02u_%02u_%02u"), time.wYear, time.wMonth, time.wDay, time.wHour,
                            time.wMinute, time.wSecond);
    }
    if (time.wHour != 0) {
        return FormatString(TEXT("%04u-%02u-%02u@%02u"), time.wYear, time.wMonth, time.wDay, time.wHour);
    }
    return FormatString(TEXT("%04u-%02u-%02u"), time.wYear, time.wMonth, time.wDay);
}

STRING PathOf(const LOG_FILE_STATE& log, const STRING& name) {
    return FormatString(TEXT("%s%s%s%s"), log.folder, name, log.extension.IsEmpty() ? TEXT("") : TEXT("."),
                        log.extension);
}

STRING RenamedPath(const LOG_FILE_STATE& log, const STRING& stamp, int attempt) {
    const STRING number = attempt == 0 ? STRING() : FormatString(TEXT("#%03u"), attempt);
    return PathOf(log, FormatString(TEXT("%s_%s%s"), log.baseName, stamp, number));
}

}  // namespace

STRING LogFilePath(const DEBUG_STATE& state) { return PathOf(state.log, state.log.baseName); }

bool OpenLogFile(DEBUG_STATE& state) {
    LOG_FILE_STATE& log = state.log;
    if (log.file) return true;
    STRING path = LogFilePath(state);
    const bool first = log.firstOpen;
    log.firstOpen = false;
    log.file = first ? FirstOpen(state, path) : OpenOrCreate(path, OPEN_ALWAYS, TEXT("opened"));
    if (log.file) log.openPath = std::move(path);
    return static_cast<bool>(log.file);
}

void CloseLogFile(DEBUG_STATE& state) {
    state.log.file.Reset();
    state.log.openPath.Clear();
}

void WriteLogFile(DEBUG_STATE& state, std::string_view bytes) {
    const auto count = static_cast<DWORD>(bytes.size());
    DWORD written = 0;
    if (WriteFile(state.log.file.Get(), bytes.data(), count, &written, nullptr)) return;
    const ERROR_CODE error;
    DebugOutputError(TEXT("%s"), FormatError(error, TEXT("Unable to write %lu bytes to log file"), count));
}

bool RenameLogFile(const DEBUG_STATE& state, const STRING& path, const SYSTEMTIME* time) {
    SYSTEMTIME now;
    if (time == nullptr) {
        GetLocalTime(&now);
        time = &now;
    }
    const STRING stamp = NameStamp(*time);
    for (int attempt = 0;; ++attempt) {
        const STRING renamed = RenamedPath(state.log, stamp, attempt);
        if (MoveFileW(path.Text(), renamed.Text())) {
            InternalPrint(TEXT("Log path \"%s\" renamed to\n    \"%s\""), path, renamed);
            return true;
        }
        if (GetLastError() == ERROR_ALREADY_EXISTS && attempt < MaxRenameAttempts) continue;
        DebugOutputError(TEXT("Name collision renaming log path \"%s\" to\n    \"%s\""), path, renamed);
        return false;
    }
}

// ---- Its daily renaming ----

namespace {

constexpr DWORD MsPerHour = 3600 * 1000;
constexpr DWORD MsPerDay = 24 * MsPerHour;
constexpr DWORD StopWaitMs = 10000;  // for the thread to end

// What the next renamed file is called, and when that is due; both are local times.
struct SCHEDULE {
    TIME_STAMP naming;
    TIME_STAMP due;
};

struct RENAME_STATE {
    // Guarded by the debug-output lock: the thread uses them under that one alone.
    TIME_STAMP naming;
    DWORD periodMs = 0;

    std::optional<CRITICAL_SECTION_OWNER> lock;  // taken after the debug-output lock; guards the handles
    HANDLE_OWNER timer;
    HANDLE_OWNER wake;
    HANDLE_OWNER thread;
    std::atomic<bool> stop = false;

    RENAME_STATE() { lock.emplace(); }
};

RENAME_STATE& RenameState() {
    static RENAME_STATE& state = *new RENAME_STATE;  // never destroyed: the thread may outlive static objects
    return state;
}

SCHEDULE FirstSchedule(DWORD hour) {
    SYSTEMTIME now;
    GetLocalTime(&now);
    const WORD currentHour = now.wHour;
    now.wMinute = now.wSecond = now.wMilliseconds = 0;
    now.wHour = static_cast<WORD>(hour);
    SCHEDULE schedule;
    schedule.naming = TIME_STAMP::FromFields(now);
    schedule.due = schedule.naming;
    if (hour == 0) {
        schedule.due.AddMs(MsPerDay);
    } else if (hour <= currentHour) {
        schedule.naming.AddMs(MsPerDay);
        schedule.due.AddMs(MsPerDay);
    }
    return schedule;
}

// The timer came: a file that is open is put aside; the next line makes a new one.
void RenameOpenFile(RENAME_STATE& rename) {
    DEBUG_STATE& debug = DebugState();
    const LOCK_GUARD guard(debug.lock);
    InternalPrint(TEXT("Rename timer signaled"));
    if (!debug.log.file) return;
    const STRING path = std::move(debug.log.openPath);
    CloseLogFile(debug);
    SYSTEMTIME named{};
    rename.naming.ToFields(named);
    rename.naming.AddMs(rename.periodMs);
    // A file that is not renamed, be it for lack of memory, is opened again by the next line.
    WithinMemory([&] { RenameLogFile(debug, path, &named); });
}

unsigned WINAPI RenameThread(void*) {
    RENAME_STATE& rename = RenameState();
    InternalPrint(TEXT("Rename thread started"));
    enum SLOT : DWORD { WAKE = WAIT_OBJECT_0, TIMER };
    const HANDLE handles[] = {rename.wake.Get(), rename.timer.Get()};
    while (!rename.stop) {
        switch (WaitForMultipleObjects(std::size(handles), handles, FALSE, INFINITE)) {
            case WAKE:
                InternalPrint(TEXT("Rename event signaled"));
                break;
            case TIMER:
                RenameOpenFile(rename);
                break;
            default:
                return 1;
        }
    }
    InternalPrint(TEXT("Rename thread stopping"));
    return 0;
}

void ArmTimer(const RENAME_STATE& rename, const SCHEDULE& schedule) {
    const LARGE_INTEGER due = schedule.due.FromLocal().DueTime();
    SetWaitableTimer(rename.timer.Get(), &due, static_cast<LONG>(rename.periodMs), nullptr, nullptr, FALSE);
}

void StartThread(RENAME_STATE& rename, const SCHEDULE& schedule) {
    rename.timer.Reset(CreateWaitableTimerW(nullptr, FALSE, nullptr));
    rename.wake.Reset(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    ArmTimer(rename, schedule);
    unsigned id = 0;
    rename.thread.Reset(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, RenameThread, nullptr, 0, &id)));
    if (rename.thread) return;
    rename.wake.Reset();
    rename.timer.Reset();
}

}  // namespace

void StartLogRename(DWORD hour, DWORD days) {
    const SCHEDULE schedule = FirstSchedule(hour);
    RENAME_STATE& rename = RenameState();
    const LOCK_GUARD debugGuard(DebugState().lock);
    if (!rename.lock) return;  // the process ends
    const LOCK_GUARD guard(*rename.lock);
    rename.naming = schedule.naming;
    rename.periodMs = days * MsPerDay;
    if (!rename.thread) return StartThread(rename, schedule);
    ArmTimer(rename, schedule);
    SetEvent(rename.wake.Get());
}

void StopLogRename() {
    RENAME_STATE& rename = RenameState();
    if (!rename.thread) {
        rename.lock.reset();
        return;
    }
    rename.stop = true;
    SetEvent(rename.wake.Get());
    // Only a thread that has ended is terminated: one that does not end in time is left running.
    if (WaitForSingleObject(rename.thread.Get(), StopWaitMs) == WAIT_OBJECT_0) TerminateThread(rename.thread.Get(), 0);
    rename.timer.Reset();
    rename.wake.Reset();
    rename.thread.Reset();
    rename.lock.reset();
}

}  // namespace keldwick
