// A clock of the test's own: time stands still while the agent works, and jumps to the next time-out, timer or planned
// action when its worker would block with nothing signalled and nothing on the way to it.
#pragma once

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <limits>
#include <map>
#include <mutex>
#include <set>
#include <span>
#include <thread>
#include <utility>

#include "tests/support/fail_call.h"

extern "C" DWORD __real_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds);

// The thread that makes it is the one that moves it, by waiting; other threads wait in real time.
class VIRTUAL_CLOCK {
public:
    using TIME = LONGLONG;  // 100-ns units since 1601, UTC
    static constexpr TIME Second = 10'000'000;

    // world: lets everything outside the agent take a step, without waiting; false: there was nothing to do.
    VIRTUAL_CLOCK(TIME start, std::function<bool()> world) : now(start), step(std::move(world)) { current = this; }
    ~VIRTUAL_CLOCK() { current = nullptr; }

    static VIRTUAL_CLOCK* Current() { return current; }
    TIME Now() const { return now; }
    TIME Look() { return now += perLook; }  // what the agent gets
    void Set(TIME time) { now = time; }     // forward or back; nothing happens meanwhile
    std::atomic<TIME> perLook{0};           // by which the clock goes on whenever the agent looks at it
    bool IsMovedByThisThread() const { return std::this_thread::get_id() == mover; }

    // Does it, on the worker's thread, when it is that time and the worker waits. Of one time in the order of planning.
    void At(TIME when, std::function<void()> action) { plan.emplace(when, std::move(action)); }

    // Does what makes the agent signal `handle` to one of its other threads, and waits until that thread has dealt
    // with it and waits again.
    static void Through(HANDLE handle, const std::function<void()>& action) {
        std::unique_lock lock(mutex);
        Await(lock, [&] { return waiting[handle] > 0; });
        const unsigned before = rounds[handle];
        lock.unlock();
        action();
        lock.lock();
        Await(lock, [&] { return rounds[handle] != before; });
    }

    // ---- What the wrapped calls are here ----

    DWORD WaitAsWorker(std::span<const HANDLE> handles, DWORD milliseconds) {
        const TIME end = milliseconds == INFINITE ? Never : now + milliseconds * (Second / 1000);
        for (bool settled = false;;) {
            const DWORD result = RealWait(handles, FALSE, 0);
            if (result != WAIT_TIMEOUT) return result;
            if (step()) {
                settled = false;
            } else if (!std::exchange(settled, true)) {
                continue;  // what came while the world was looked at
            } else if (now >= end) {
                return WAIT_TIMEOUT;
            } else {
                Advance(handles, end);
                settled = false;
            }
        }
    }

    static DWORD WaitAsOther(std::span<const HANDLE> handles, BOOL all, DWORD milliseconds) {
        static thread_local HANDLE taken = nullptr;  // by this thread's wait before
        Note([&] {
            if (taken != nullptr) ++rounds[taken];
            for (const HANDLE handle : handles) ++waiting[handle];
        });
        const DWORD result = RealWait(handles, all, milliseconds);
        const DWORD error = GetLastError();
        Note([&] {
            for (const HANDLE handle : handles) --waiting[handle];
            taken = result < handles.size() ? handles[result] : nullptr;
        });
        SetLastError(error);
        return result;
    }

    // A waitable timer is an event that the clock sets.
    static HANDLE CreateTimer(BOOL manualReset) {
        const HANDLE timer = CreateEventW(nullptr, manualReset, FALSE, nullptr);
        Note([&] { timers[timer] = {}; });
        return timer;
    }
    // False: it is none of this clock's.
    bool SetTimer(HANDLE timer, TIME due, LONG periodMs) {
        const std::lock_guard lock(mutex);
        const auto found = timers.find(timer);
        if (found == timers.end()) return false;
        ResetEvent(timer);
        found->second = {due < 0 ? now - due : due, periodMs * (Second / 1000)};
        return true;
    }
    static void Closed(HANDLE handle) {
        Note([&] { timers.erase(handle), threads.erase(handle); });
    }

    // Threads that the agent starts work in real time, and who waits for one of them does, too.
    static void Started(HANDLE thread) {
        Note([&] { threads.insert(thread); });
    }
    static bool IsForThreads(std::span<const HANDLE> handles) {
        const std::lock_guard lock(mutex);
        return std::any_of(handles.begin(), handles.end(), [](HANDLE handle) { return threads.contains(handle); });
    }

private:
    static constexpr TIME Never = std::numeric_limits<TIME>::max();
    struct TIMER {
        TIME due = Never;
        TIME period = 0;
    };
    static DWORD RealWait(std::span<const HANDLE> handles, BOOL all, DWORD milliseconds) {
        return __real_WaitForMultipleObjects(static_cast<DWORD>(handles.size()), handles.data(), all, milliseconds);
    }
    template <typename CHANGE>
    static void Note(CHANGE change) {
        const std::lock_guard lock(mutex);
        change();
        changed.notify_all();
    }
    template <typename CONDITION>
    static void Await(std::unique_lock<std::mutex>& lock, CONDITION condition) {
        if (!changed.wait_for(lock, std::chrono::seconds(30), condition))
            Stuck("another thread does not come to its wait");
    }
    [[noreturn]] static void Stuck(const char* why) {
        std::fprintf(stderr, "virtual clock: %s\n", why);
        std::abort();
    }

    // Goes on to the next thing that happens, and lets it happen.
    void Advance(std::span<const HANDLE> handles, TIME end) {
        std::unique_lock lock(mutex);
        const auto matters = [&](HANDLE timer) {
            return waiting[timer] > 0 || std::find(handles.begin(), handles.end(), timer) != handles.end();
        };
        TIME next = plan.empty() ? end : std::min(end, plan.begin()->first);
        for (const auto& [timer, state] : timers)
            if (matters(timer)) next = std::min(next, state.due);
        if (next == Never) Stuck("the worker waits for what never comes");
        now = std::max<TIME>(now, next);
        for (auto& [timer, state] : timers) {
            if (state.due > now || !matters(timer)) continue;
            state.due = state.period > 0 ? state.due + state.period : Never;
            const HANDLE due = timer;
            if (waiting[due] == 0) {
                SetEvent(due);
                continue;
            }
            lock.unlock();  // the map stays as it is: the other thread only waits
            Through(due, [due] { SetEvent(due); });
            lock.lock();
        }
        lock.unlock();
        while (!plan.empty() && plan.begin()->first <= now) plan.extract(plan.begin()).mapped()();
    }

    static inline std::atomic<VIRTUAL_CLOCK*> current{nullptr};
    // Never destroyed: a thread of the agent's may outlive its test, and the tests.
    static inline auto& mutex = *new std::mutex;  // over what follows
    static inline auto& changed = *new std::condition_variable;
    static inline auto& timers = *new std::map<HANDLE, TIMER>;     // of every test
    static inline auto& threads = *new std::set<HANDLE>;           // open handles of them
    static inline auto& waiting = *new std::map<HANDLE, int>;      // how many other threads wait for it
    static inline auto& rounds = *new std::map<HANDLE, unsigned>;  // how often one came back from it to wait again

    const std::thread::id mover = std::this_thread::get_id();
    std::atomic<TIME> now;
    const std::function<bool()> step;
    std::multimap<TIME, std::function<void()>> plan;
};

WRAPPED(void, GetSystemTimeAsFileTime, (LPFILETIME time)) {
    VIRTUAL_CLOCK* const clock = VIRTUAL_CLOCK::Current();
    if (clock == nullptr) return __real_GetSystemTimeAsFileTime(time);
    const auto units = static_cast<ULONGLONG>(clock->Look());
    *time = {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)};
}

WRAPPED(DWORD, WaitForMultipleObjects, (DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds)) {
    VIRTUAL_CLOCK* const clock = VIRTUAL_CLOCK::Current();
    if (clock == nullptr) return __real_WaitForMultipleObjects(count, handles, all, milliseconds);
    if (!clock->IsMovedByThisThread()) return VIRTUAL_CLOCK::WaitAsOther({handles, count}, all, milliseconds);
    if (all || VIRTUAL_CLOCK::IsForThreads({handles, count}))
        return __real_WaitForMultipleObjects(count, handles, all, milliseconds);
    return clock->WaitAsWorker({handles, count}, milliseconds);
}

WRAPPED(DWORD, WaitForSingleObject, (HANDLE handle, DWORD milliseconds)) {
    VIRTUAL_CLOCK* const clock = VIRTUAL_CLOCK::Current();
    if (clock == nullptr || !clock->IsMovedByThisThread() || milliseconds == 0 ||
        VIRTUAL_CLOCK::IsForThreads({&handle, 1}))
        return __real_WaitForSingleObject(handle, milliseconds);
    return clock->WaitAsWorker({&handle, 1}, milliseconds);
}

WRAPPED(HANDLE, CreateWaitableTimerW, (LPSECURITY_ATTRIBUTES security, BOOL manualReset, LPCWSTR name)) {
    if (VIRTUAL_CLOCK::Current() == nullptr) return __real_CreateWaitableTimerW(security, manualReset, name);
    return VIRTUAL_CLOCK::CreateTimer(manualReset);
}

WRAPPED(BOOL, SetWaitableTimer,
        (HANDLE timer, const LARGE_INTEGER* due, LONG period, PTIMERAPCROUTINE routine, LPVOID argument, BOOL resume)) {
    VIRTUAL_CLOCK* const clock = VIRTUAL_CLOCK::Current();
    if (clock != nullptr && clock->SetTimer(timer, due->QuadPart, period)) return TRUE;
    return __real_SetWaitableTimer(timer, due, period, routine, argument, resume);
}

WRAPPED(BOOL, CloseHandle, (HANDLE handle)) {
    VIRTUAL_CLOCK::Closed(handle);
    return __real_CloseHandle(handle);
}

WRAPPED(uintptr_t, _beginthreadex,
        (void* security, unsigned stack, unsigned (*routine)(void*), void* argument, unsigned flags, unsigned* id)) {
    const uintptr_t thread = __real__beginthreadex(security, stack, routine, argument, flags, id);
    if (thread != 0) VIRTUAL_CLOCK::Started(reinterpret_cast<HANDLE>(thread));
    return thread;
}
