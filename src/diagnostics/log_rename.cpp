#include "diagnostics/log_rename.h"

#include <process.h>

#include <atomic>
#include <iterator>
#include <optional>

#include "diagnostics/log_file.h"
#include "platform/time_stamp.h"

namespace keldwick {
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
    const HANDLE handles[] = {rename.wake.Get(), rename.timer.Get()};
    while (!rename.stop) {
        switch (WaitForMultipleObjects(std::size(handles), handles, FALSE, INFINITE)) {
            case WAIT_OBJECT_0:
                InternalPrint(TEXT("Rename event signaled"));
                break;
            case WAIT_OBJECT_0 + 1:
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
