// Calendar conversions and the local zone.
#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <bit>
#include <cstdlib>
#include <optional>
#include <string>

#include "tests/support/last_error.h"

namespace {

constexpr LONGLONG UnitsPerMinute = 600'000'000;

ULONGLONG Units(const FILETIME& time) { return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime; }
FILETIME Time(ULONGLONG units) { return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)}; }

// Each the same moment twice; the numbers are the calendar's own, counted in days from 1601-01-01.
const std::pair<ULONGLONG, SYSTEMTIME> moments[] = {
    {0, {1601, 1, 1, 1, 0, 0, 0, 0}},
    {116'444'736'000'000'000, {1970, 1, 4, 1, 0, 0, 0, 0}},
    {125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},  // a century that has a leap day
    {125'963'424'000'000'000, {2000, 3, 3, 1, 0, 0, 0, 0}},
    {94'404'960'000'000'000, {1900, 2, 3, 28, 0, 0, 0, 0}},  // one that has none
    {94'405'824'000'000'000, {1900, 3, 4, 1, 0, 0, 0, 0}},
    {0x7FFF'FFFF'FFFF'0000, {30828, 9, 4, 14, 2, 48, 5, 471}}};

TEST(Calendar, ConvertsFileTimesAndBack) {
    for (const auto& [units, wanted] : moments) {
        SYSTEMTIME fields{};
        FILETIME time = Time(units), back{};
        ASSERT_TRUE(FileTimeToSystemTime(&time, &fields));
        EXPECT_EQ((std::bit_cast<std::array<WORD, 8>>(wanted)), (std::bit_cast<std::array<WORD, 8>>(fields)));
        if (fields.wYear > 30827) continue;  // beyond what SystemTimeToFileTime takes
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &back));
        EXPECT_EQ(units, Units(back));
    }
}

TEST(Calendar, RefusesWhatIsNoMoment) {
    const SYSTEMTIME wrong[] = {
        {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0}, {2000, 0, 0, 1, 0, 0, 0, 0},
        {2000, 13, 0, 1, 0, 0, 0, 0},  {2001, 2, 0, 29, 0, 0, 0, 0}, {1900, 2, 0, 29, 0, 0, 0, 0},
        {2000, 4, 0, 31, 0, 0, 0, 0},  {2000, 1, 0, 0, 0, 0, 0, 0},  {2000, 1, 0, 1, 24, 0, 0, 0},
        {2000, 1, 0, 1, 0, 60, 0, 0},  {2000, 1, 0, 1, 0, 0, 60, 0}, {2000, 1, 0, 1, 0, 0, 0, 1000}};
    FILETIME time{};
    for (const SYSTEMTIME& fields : wrong) {
        SetLastError(0);
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, ErrorOf(SystemTimeToFileTime(&fields, &time))) << &fields - wrong;
    }
    const FILETIME late = Time(0x8000'0000'0000'0000);
    SYSTEMTIME fields{};
    SetLastError(0);
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, ErrorOf(FileTimeToSystemTime(&late, &fields)));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, ErrorOf(FileTimeToLocalFileTime(&late, &time)));
}

class ZONE {
public:
    ZONE() {
        if (const char* set = std::getenv("TZ")) before = set;
    }
    ~ZONE() { before ? setenv("TZ", before->c_str(), 1) : unsetenv("TZ"); }
    void Set(const char* name) { setenv("TZ", name, 1); }

private:
    std::optional<std::string> before;
};

TEST(LocalTime, FollowsTheZoneAndItsConversionsAreInverse) {
    ZONE zone;
    const std::pair<const char*, LONGLONG> cases[] = {// minutes
                                                      {"UTC0", 0},
                                                      {"<+0545>-5:45", 345},
                                                      {"EST5", -300},
                                                      {"<-0930>9:30", -570}};
    for (const auto& [name, minutes] : cases) {
        zone.Set(name);
        const FILETIME noon = Time(moments[2].first);
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
}

}  // namespace
