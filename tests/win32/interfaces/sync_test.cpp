// Handles, events, waits and timers by the calls alone.

#include "tests/win32/fixture.h"

namespace {

TEST(Handles, AClosedOneFailsThoughItsPlaceIsTaken) {
    const HANDLE stale = AutoEvent();
    EXPECT_TRUE(CloseHandle(stale));
    const OWNED_HANDLE newest(AutoEvent(true));
    EXPECT_FALSE(SetEvent(stale));
    EXPECT_EQ(WAIT_FAILED, WaitForSingleObject(stale, 0));
    EXPECT_EQ(DWORD{ERROR_INVALID_HANDLE}, ErrorOf(CloseHandle(stale)));
    EXPECT_TRUE(IsSet(newest));
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

bool Arm(HANDLE timer, LONGLONG due, LONG period = 0) {
    LARGE_INTEGER time;
    time.QuadPart = due;
    return SetWaitableTimer(timer, &time, period, nullptr, nullptr, FALSE);
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
            ASSERT_EQ(comes, IsSet(timer, comes ? SoonEnough : 0)) << due;
            EXPECT_EQ(comes && manual, IsSet(timer)) << due;
        }
        ASSERT_TRUE(Arm(timer, -10000, 1));
        for (int i = 0; i < 3; ++i) EXPECT_TRUE(IsSet(timer, SoonEnough)) << "it comes again after its period";
        ASSERT_TRUE(Arm(timer, 0));
        ASSERT_TRUE(Arm(timer, -Hour));
        EXPECT_FALSE(IsSet(timer)) << "arming takes back a signal";
    }
}

TEST(Timers, EndAWaitForSeveralObjectsHoweverTheyAreArmed) {
    constexpr LONGLONG Hour = 36'000'000'000;
    const OWNED_HANDLE event(CreateEventW(nullptr, FALSE, FALSE, nullptr));
    const OWNED_HANDLE timer(CreateWaitableTimerW(nullptr, FALSE, nullptr));
    const HANDLE both[] = {event, timer};
    ASSERT_TRUE(Arm(timer, -10000));
    EXPECT_EQ(DWORD{WAIT_TIMEOUT}, WaitForMultipleObjects(2, both, TRUE, 20)) << "the event is missing";
    SetEvent(event);
    EXPECT_EQ(WAIT_OBJECT_0, WaitForMultipleObjects(2, both, TRUE, SoonEnough));
    EXPECT_FALSE(IsSet(timer)) << "the wait for both took its signal";
    for (const LONGLONG former : {LONGLONG{-Hour}, LONGLONG{0}}) {  // the latter is a signal that arming takes back
        ASSERT_TRUE(Arm(timer, former));
        ASSERT_TRUE(Arm(timer, -Hour));
        DWORD signal = WAIT_FAILED;
        std::thread waiting([&] { signal = WaitForMultipleObjects(2, both, FALSE, SoonEnough); });
        Sleep(20);  // whether it waits by then or not, the outcome is the same
        EXPECT_TRUE(Arm(timer, -10000));
        waiting.join();
        EXPECT_EQ(WAIT_OBJECT_0 + 1, signal);
    }
}

}  // namespace
