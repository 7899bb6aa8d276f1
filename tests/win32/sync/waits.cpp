// Events, timers and waits.
#include <gtest/gtest.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <windows.h>

#include <array>
#include <atomic>
#include <set>
#include <thread>
#include <vector>

#include "tests/support/last_error.h"
#include "tests/support/owned_handle.h"
#include "win32/sync/kernel_object.h"

namespace {

constexpr DWORD SoonEnough = 20000;  // ms that nothing here ever needs

HANDLE AutoEvent(bool set = false) { return CreateEventW(nullptr, FALSE, set, nullptr); }
HANDLE ManualEvent(bool set = false) { return CreateEventW(nullptr, TRUE, set, nullptr); }
bool IsSet(HANDLE handle) { return WaitForSingleObject(handle, 0) == WAIT_OBJECT_0; }

bool Arm(HANDLE timer, LONGLONG due, LONG period = 0) {
    const LARGE_INTEGER time{.QuadPart = due};
    return SetWaitableTimer(timer, &time, period, nullptr, nullptr, FALSE);
}

TEST(Handles, AreNeverNullAndAClosedOneFailsThoughItsPlaceIsTaken) {
    std::set<HANDLE> seen;
    for (int i = 0; i < 1000; ++i) {
        const HANDLE event = AutoEvent();
        EXPECT_TRUE(event != nullptr && event != INVALID_HANDLE_VALUE);
        EXPECT_TRUE(seen.insert(event).second);
        EXPECT_TRUE(CloseHandle(event));
    }
    const HANDLE event = AutoEvent();
    const auto object = win32::ObjectOf(event);
    CloseHandle(event);
    EXPECT_TRUE(win32::SignalEventObject(*object)) << "an object outlives its handle while somebody uses it";
    EXPECT_EQ(nullptr, win32::ObjectOf(event));
    seen.insert(event);
    const OWNED_HANDLE newest(AutoEvent(true));
    for (const HANDLE stale : seen) {
        SetLastError(0);
        EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, ErrorOf(CloseHandle(stale)));
        EXPECT_EQ(nullptr, win32::ObjectOf(stale));
        EXPECT_FALSE(SetEvent(stale));
        EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(stale, 0));
    }
    EXPECT_TRUE(IsSet(newest));
}

TEST(Events, AManualOneStaysSetAndAnAutomaticOneOrAPulseIsTakenOnce) {
    for (const BOOL manual : {FALSE, TRUE}) {
        const OWNED_HANDLE event(CreateEventW(nullptr, manual, TRUE, nullptr));
        SetEvent(event);  // signals do not add up
        EXPECT_TRUE(IsSet(event));
        EXPECT_EQ(manual != FALSE, IsSet(event));
        EXPECT_TRUE(ResetEvent(event));
        EXPECT_FALSE(IsSet(event));
        const auto object = win32::ObjectOf(event);
        EXPECT_TRUE(win32::PulseEventObject(*object) && win32::PulseEventObject(*object));
        EXPECT_TRUE(IsSet(event));
        EXPECT_FALSE(IsSet(event));
        win32::PulseEventObject(*object);
        SetEvent(event);
        win32::PulseEventObject(*object);
        EXPECT_TRUE(IsSet(event));
        EXPECT_EQ(manual != FALSE, IsSet(event));
    }
}

TEST(Waits, ForAnyTakeTheLowestSignalAndForAllEveryOneOrNone) {
    const OWNED_HANDLE a(AutoEvent()), b(AutoEvent(true)), c(ManualEvent(true));
    const HANDLE all[] = {a, b, c};
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(3, all, FALSE, INFINITE));
    EXPECT_EQ(WAIT_OBJECT_0 + 2, WaitForMultipleObjects(3, all, FALSE, 0));
    ResetEvent(c);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForMultipleObjects(3, all, FALSE, 0));
    SetEvent(c);
    SetEvent(a);
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForMultipleObjects(3, all, TRUE, 1));
    EXPECT_TRUE(IsSet(a)) << "a wait for all takes every signal or none";
    for (const HANDLE event : all) SetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(3, all, TRUE, 0));
    EXPECT_FALSE(IsSet(a) || IsSet(b));
    EXPECT_TRUE(IsSet(c));
}

// Two threads that each need both events, and name them in opposite orders, share what a third hands out.
TEST(Waits, ForAllInOppositeOrdersNeitherLoseSignalsNorBlockEachOther) {
    constexpr int Rounds = 500;
    const OWNED_HANDLE a(AutoEvent()), b(AutoEvent()), taken(AutoEvent());
    std::atomic<int> takes{0};
    const auto take = [&](std::array<HANDLE, 2> pair) {
        while (takes < Rounds && WaitForMultipleObjects(2, pair.data(), TRUE, SoonEnough) == WAIT_OBJECT_0) {
            ++takes;
            SetEvent(taken);
        }
    };
    std::thread first(take, std::array<HANDLE, 2>{a, b}), second(take, std::array<HANDLE, 2>{b, a});
    for (int i = 0; i < Rounds + 1; ++i) {  // one round more releases the thread that still waits
        SetEvent(a);
        SetEvent(b);
        ASSERT_TRUE(i == Rounds || WaitForSingleObject(taken, SoonEnough) == WAIT_OBJECT_0);
    }
    first.join();
    second.join();
    EXPECT_GE(takes, Rounds);
}

TEST(Waits, RefuseWhatCannotBeWaitedFor) {
    const OWNED_HANDLE event(AutoEvent(true));
    const OWNED_HANDLE plain(win32::NewHandle(std::make_shared<win32::KERNEL_OBJECT>()));
    const std::vector<HANDLE> most(MAXIMUM_WAIT_OBJECTS, event), many(MAXIMUM_WAIT_OBJECTS + 1, event);
    const HANDLE madeUp = reinterpret_cast<HANDLE>(0x7FFFFFF0);
    const struct {
        std::vector<HANDLE> handles;
        BOOL all;
        DWORD result, error;
    } cases[] = {{{}, FALSE, WAIT_FAILED, ERROR_INVALID_PARAMETER},
                 {most, FALSE, WAIT_OBJECT_0, 0},
                 {many, FALSE, WAIT_FAILED, ERROR_INVALID_PARAMETER},
                 {{event, event}, TRUE, WAIT_FAILED, ERROR_INVALID_PARAMETER},
                 {{event, nullptr}, FALSE, WAIT_FAILED, ERROR_INVALID_HANDLE},
                 {{event, madeUp}, FALSE, WAIT_FAILED, ERROR_INVALID_HANDLE},
                 {{plain}, FALSE, WAIT_FAILED, ERROR_INVALID_HANDLE},
                 {{GetCurrentProcess()}, FALSE, WAIT_TIMEOUT, 0}};  // which has not ended
    for (const auto& c : cases) {
        SetLastError(0);
        SetEvent(event);
        const DWORD count = static_cast<DWORD>(c.handles.size());
        EXPECT_EQ(c.result, WaitForMultipleObjects(count, c.handles.data(), c.all, 0)) << &c - cases;
        EXPECT_EQ(c.error, GetLastError()) << &c - cases;
    }
}

TEST(Waits, SeeTheCompanionOfAnEvent) {
    const OWNED_HANDLE event(AutoEvent()), other(AutoEvent());
    const int fd = eventfd(0, EFD_NONBLOCK);
    const auto object = win32::ObjectOf(event);
    ASSERT_TRUE(win32::SetEventCompanion(*object, fd, 1 /* POLLIN */));
    const HANDLE both[] = {other, event};
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForMultipleObjects(2, both, FALSE, 0));
    ASSERT_EQ(0, eventfd_write(fd, 1));
    EXPECT_EQ(WAIT_OBJECT_0 + 1, WaitForMultipleObjects(2, both, FALSE, INFINITE));
    EXPECT_TRUE(IsSet(event)) << "the descriptor is still readable";
    SetEvent(other);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, both, TRUE, 0));
    win32::SetEventCompanion(*object, -1, 0);
    EXPECT_FALSE(IsSet(event));
    close(fd);
}

TEST(Timers, AreSignalledWhenDue) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const LONGLONG present = static_cast<LONGLONG>(ULONGLONG{now.dwHighDateTime} << 32 | now.dwLowDateTime);
    constexpr LONGLONG Hour = 36'000'000'000;
    const std::pair<LONGLONG, bool> cases[] = {
        // the due time; whether it comes
        {0, true},      {-10000, true},     {present + 10000, true}, {present, true},   {1, true},  // before 1970
        {-Hour, false}, {INT64_MIN, false}, {present + Hour, false}, {INT64_MAX, false}};
    for (const BOOL manual : {FALSE, TRUE}) {
        const OWNED_HANDLE timer(CreateWaitableTimerW(nullptr, manual, nullptr));
        for (const auto& [due, comes] : cases) {
            ASSERT_TRUE(Arm(timer, due));
            ASSERT_EQ(comes ? WAIT_OBJECT_0 : WAIT_TIMEOUT, WaitForSingleObject(timer, comes ? SoonEnough : 0)) << due;
            EXPECT_EQ(comes && manual, IsSet(timer)) << due;
        }
    }
}

TEST(Timers, ComeAgainAfterTheirPeriodAndArmingTakesBackASignal) {
    const OWNED_HANDLE timer(CreateWaitableTimerW(nullptr, FALSE, nullptr));
    ASSERT_TRUE(Arm(timer, -10000, 1));
    for (int i = 0; i < 3; ++i) EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(timer, SoonEnough));
    ASSERT_TRUE(Arm(timer, 0));
    ASSERT_TRUE(Arm(timer, -36'000'000'000));
    EXPECT_FALSE(IsSet(timer));
}

}  // namespace
