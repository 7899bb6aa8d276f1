// Calendar conversions and the local zone.
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

}  // namespace
