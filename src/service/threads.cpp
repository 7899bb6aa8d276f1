#include "service/threads.h"

#include <process.h>

#include <algorithm>
#include <vector>

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"
#include "platform/string.h"
#include "platform/time_stamp.h"

namespace keldwick {

namespace {

constexpr DWORD GroupStopMs = 5000;
constexpr DWORD TerminatedExitCode = 0xFFFFFFFF;

struct COLLECTED_THREAD {
    const WCHAR* name;
    DWORD number;  // from 1 in an array; 0: a single thread
    HANDLE* slot;
};

void LogNothing(const WCHAR*) {}

const WCHAR* ThreadWord(DWORD count) { return count == 1 ? TEXT("thread") : TEXT("threads"); }

// "NAME thread" or "NAME thread #2", as every line about one thread calls it.
STRING ThreadTitle(const COLLECTED_THREAD& thread) {
    if (thread.number == 0) return FormatString(TEXT("%s thread"), thread.name);
    return FormatString(TEXT("%s thread #%lu"), thread.name, thread.number);
}

class THREAD_STOPPER {
public:
    explicit THREAD_STOPPER(THREAD_LOG logRoutine) : log(logRoutine ? logRoutine : LogNothing) {}

    void Ask(const STOP_ENTRY& entry) {
        if (entry.stop) entry.stop(entry.argument);
        for (DWORD i = 0; i < entry.count; ++i) {
            if (!entry.isArray && !entry.slots[i]) continue;
            threads.push_back({entry.name, entry.isArray ? i + 1 : 0, &entry.slots[i]});
            log(FormatString(TEXT("Stopping %s"), ThreadTitle(threads.back())).Text());
        }
    }

    // In chunks as large as one wait takes. After each chunk the whole time since the start is taken off what remains,
    // so later chunks get less than the clock would leave them: the accounting that is wanted.
    void Wait(DWORD timeout) {
        start = TIME_STAMP::Now();
        DWORD remaining = timeout;
        for (size_t first = 0; first < threads.size() && remaining > 0;) {
            const DWORD count = static_cast<DWORD>(std::min<size_t>(threads.size() - first, MAXIMUM_WAIT_OBJECTS));
            if (!WaitForChunk(first, count, remaining)) EndChunk(first, count);
            const ULONGLONG elapsed = start.ElapsedMs();
            if (elapsed >= remaining) return;
            remaining -= static_cast<DWORD>(elapsed);
            first += count;
        }
    }

    void CloseAll() {
        for (const COLLECTED_THREAD& thread : threads) {
            CloseHandle(*thread.slot);
            *thread.slot = nullptr;
        }
    }

private:
    // False: not all of them have ended, or that is not known.
    bool WaitForChunk(size_t first, DWORD count, DWORD remaining) {
        HANDLE handles[MAXIMUM_WAIT_OBJECTS];
        for (DWORD i = 0; i < count; ++i) handles[i] = *threads[first + i].slot;

        log(FormatString(TEXT("%%Waiting %.3f seconds for %lu %s to stop ..."), remaining / 1000.0, count,
                         ThreadWord(count))
                .Text());
        const DWORD result = WaitForMultipleObjects(count, handles, TRUE, remaining);
        const DWORD error = GetLastError();
        if (result < WAIT_OBJECT_0 + count) {
            log(FormatString(TEXT("%lu %s stopped normally in %.3f seconds"), count, ThreadWord(count),
                             static_cast<double>(start.ElapsedMs()) / 1000.0)
                    .Text());
            return true;
        }
        if (result == WAIT_FAILED) {
            log(FormatError(error, TEXT("Failure waiting for %lu %s to complete"), count, ThreadWord(count)).Text());
        } else if (result != WAIT_TIMEOUT) {
            log(FormatString(TEXT("Unexpected result = %ld waiting for %lu %s to stop"), static_cast<LONG>(result),
                             count, ThreadWord(count))
                    .Text());
        }
        return false;
    }

    void EndChunk(size_t first, DWORD count) {
        for (size_t i = first; i < first + count; ++i) {
            const HANDLE thread = *threads[i].slot;
            const STRING title = ThreadTitle(threads[i]);
            if (WaitForSingleObject(thread, 0) == WAIT_TIMEOUT) {
                log(FormatString(TEXT("Terminating %s"), title).Text());
                TerminateThread(thread, TerminatedExitCode);
            } else {
                log(FormatString(TEXT("%s stopped"), title).Text());
            }
        }
    }

    const THREAD_LOG log;
    std::vector<COLLECTED_THREAD> threads;
    TIME_STAMP start;  // of the waiting: what the stop routines take does not count
};

}  // namespace

void StopThreads(DWORD timeout, THREAD_LOG log, std::initializer_list<STOP_ENTRY> entries) {
    THREAD_STOPPER stopper(log);
    for (const STOP_ENTRY& entry : entries) stopper.Ask(entry);
    stopper.Wait(timeout);
    stopper.CloseAll();
}

THREAD_GROUP::THREAD_GROUP(const WCHAR* groupName, HANDLE* slots, THREAD_LOG logRoutine, THREAD_STOP stopRoutine,
                           HANDLE stopArgument, bool owned)
    : begin(slots),
      end(slots),
      log(logRoutine),
      stop(stopRoutine),
      argument(stopArgument),
      name(groupName),
      ownsSlots(owned) {}

THREAD_GROUP::~THREAD_GROUP() {
    const DWORD count = static_cast<DWORD>(end - begin);
    if (count > 0) StopThreads(GroupStopMs, log, {{name, stop, argument, begin, count > 1, count}});
    if (ownsSlots) delete[] begin;
}

bool THREAD_GROUP::Start(THREAD_ROUTINE routine) {
    const uintptr_t thread = _beginthreadex(nullptr, 0, routine, nullptr, 0, nullptr);
    if (!thread) return false;
    *end++ = reinterpret_cast<HANDLE>(thread);
    return true;
}

void THREAD_GROUP::Release() {
    end = begin;
    ownsSlots = false;
}

}  // namespace keldwick
