// Handles, events, waits, timers, the calendar and the local zone by the calls alone.
#include <array>
#include <bit>
#include <cstdlib>

#include "tests/win32/fixture.h"

namespace {

ULONGLONG Units(const FILETIME& time) { return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime; }
FILETIME Time(ULONGLONG units) { return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)}; }

TEST(Calendar, ConvertsFileTimesAndBack) {
    const std::pair<ULONGLONG, SYSTEMTIME> moments[] = {
        {0, {1601, 1, 1, 1, 0, 0, 0, 0}},
        {125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},  // a century that has a leap day
        {125'963'424'000'000'000, {2000, 3, 3, 1, 0, 0, 0, 0}},
        {94'404'960'000'000'000, {1900, 2, 3, 28, 0, 0, 0, 0}},  // one that has none
        {94'405'824'000'000'000, {1900, 3, 4, 1, 0, 0, 0, 0}}};
    for (const auto& [units, wanted] : moments) {
        SYSTEMTIME fields{};
        FILETIME time = Time(units), back{};
        ASSERT_TRUE(FileTimeToSystemTime(&time, &fields));
        EXPECT_EQ((std::bit_cast<std::array<WORD, 8>>(wanted)), (std::bit_cast<std::array<WORD, 8>>(fields)));
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &back));
        EXPECT_EQ(units, Units(back));
    }
}

TEST(LocalTime, FollowsTheZoneAndItsConversionsAreInverse) {
    constexpr LONGLONG UnitsPerMinute = 600'000'000;
    const std::pair<const char*, LONGLONG> cases[] = {{"UTC0", 0}, {"<+0545>-5:45", 345}, {"EST5", -300}};  // minutes
    for (const auto& [name, minutes] : cases) {
        setenv("TZ", name, 1);
        const FILETIME noon = Time(125'963'423'999'990'000);
        FILETIME local{}, back{}, now{}, nowLocal{};
        ASSERT_TRUE(FileTimeToLocalFileTime(&noon, &local));
        EXPECT_EQ(minutes * UnitsPerMinute, static_cast<LONGLONG>(Units(local) - Units(noon))) << name;
        ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
        EXPECT_EQ(Units(noon), Units(back)) << name;

        SYSTEMTIME fields{};
        GetSystemTimeAsFileTime(&now);
        GetLocalTime(&fields);
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &nowLocal));
        const LONGLONG difference = static_cast<LONGLONG>(Units(nowLocal) - Units(now)) - minutes * UnitsPerMinute;
        EXPECT_TRUE(difference > -10000 && difference < UnitsPerMinute) << difference;
    }
    unsetenv("TZ");
}

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

constexpr LONGLONG Hour = 36'000'000'000;

bool Arm(HANDLE timer, LONGLONG due, LONG period = 0) {
    LARGE_INTEGER time;
    time.QuadPart = due;
    return SetWaitableTimer(timer, &time, period, nullptr, nullptr, FALSE);
}

TEST(Timers, AreSignalledWhenDue) {
    FILETIME now;
    GetSystemTimeAsFileTime(&now);
    const LONGLONG present = static_cast<LONGLONG>(Units(now));
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
    const OWNED_HANDLE event(AutoEvent());
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
