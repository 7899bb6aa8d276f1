// Calendar conversions and the local zone.
#include <gtest/gtest.h>
#include <windows.h>

#include <array>
#include <bit>
#include <cstdlib>
#include <optional>
#include <string>

namespace {

constexpr ULONGLONG UnitsPerHour = 36'000'000'000;

ULONGLONG Units(const FILETIME& time) { return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime; }
FILETIME Time(ULONGLONG units) { return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)}; }

struct MOMENT {
    const char* name;
    ULONGLONG units;
    SYSTEMTIME fields;
};

// Each the same moment twice; the numbers are the calendar's own, counted in days from 1601-01-01.
const MOMENT moments[] = {
    {"the first", 0, {1601, 1, 1, 1, 0, 0, 0, 0}},
    {"the epoch of Unix", 116'444'736'000'000'000, {1970, 1, 4, 1, 0, 0, 0, 0}},
    {"leap day of a century that has one", 125'963'423'999'990'000, {2000, 2, 2, 29, 23, 59, 59, 999}},
    {"a day after", 125'963'424'000'000'000, {2000, 3, 3, 1, 0, 0, 0, 0}},
    {"a century without a leap day", 94'404'960'000'000'000, {1900, 2, 3, 28, 0, 0, 0, 0}},
    {"its next day", 94'405'824'000'000'000, {1900, 3, 4, 1, 0, 0, 0, 0}},
    {"the last", 0x7FFF'FFFF'FFFF'0000, {30828, 9, 4, 14, 2, 48, 5, 471}}};

TEST(Calendar, ConvertsFileTimesAndBack) {
    for (const MOMENT& m : moments) {
        SCOPED_TRACE(m.name);
        SYSTEMTIME fields{};
        const FILETIME time = Time(m.units);
        ASSERT_TRUE(FileTimeToSystemTime(&time, &fields));
        const auto wanted = std::bit_cast<std::array<WORD, 8>>(m.fields);
        EXPECT_EQ(wanted, (std::bit_cast<std::array<WORD, 8>>(fields)));
        FILETIME back{};
        if (fields.wYear > 30827) continue;  // beyond what SystemTimeToFileTime takes
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &back));
        EXPECT_EQ(m.units, Units(back));
    }
}

TEST(Calendar, RefusesWhatIsNoMoment) {
    const SYSTEMTIME wrong[] = {
        {1600, 12, 0, 31, 0, 0, 0, 0}, {30828, 1, 0, 1, 0, 0, 0, 0}, {2000, 0, 0, 1, 0, 0, 0, 0},
        {2000, 13, 0, 1, 0, 0, 0, 0},  {2001, 2, 0, 29, 0, 0, 0, 0}, {1900, 2, 0, 29, 0, 0, 0, 0},
        {2000, 4, 0, 31, 0, 0, 0, 0},  {2000, 1, 0, 0, 0, 0, 0, 0},  {2000, 1, 0, 1, 24, 0, 0, 0},
        {2000, 1, 0, 1, 0, 60, 0, 0},  {2000, 1, 0, 1, 0, 0, 60, 0}, {2000, 1, 0, 1, 0, 0, 0, 1000}};
    for (const SYSTEMTIME& fields : wrong) {
        FILETIME time{};
        SetLastError(0);
        EXPECT_FALSE(SystemTimeToFileTime(&fields, &time))
            << fields.wYear << "-" << fields.wMonth << "-" << fields.wDay;
        EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, GetLastError());
    }
    const FILETIME late = Time(0x8000'0000'0000'0000);
    SYSTEMTIME fields{};
    FILETIME shifted{};
    SetLastError(0);
    EXPECT_FALSE(FileTimeToSystemTime(&late, &fields) || FileTimeToLocalFileTime(&late, &shifted));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, GetLastError());
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
    const struct CASE {
        const char* zone;
        LONGLONG offset;
    } cases[] = {{"UTC0", 0}, {"<+0545>-5:45", 575}, {"EST5", -500}, {"<-0930>9:30", -950}};  // hundredths of an hour
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.zone);
        zone.Set(c.zone);
        const FILETIME noon = Time(moments[2].units);
        FILETIME local{}, back{}, now{}, nowLocal{};
        ASSERT_TRUE(FileTimeToLocalFileTime(&noon, &local));
        EXPECT_EQ(c.offset * static_cast<LONGLONG>(UnitsPerHour / 100),
                  static_cast<LONGLONG>(Units(local) - Units(noon)));
        ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
        EXPECT_EQ(Units(noon), Units(back));

        SYSTEMTIME fields{};
        GetSystemTimeAsFileTime(&now);
        GetLocalTime(&fields);
        ASSERT_TRUE(SystemTimeToFileTime(&fields, &nowLocal));
        const LONGLONG shown = static_cast<LONGLONG>(Units(nowLocal) - Units(now));
        const LONGLONG difference = shown - c.offset * static_cast<LONGLONG>(UnitsPerHour / 100);
        EXPECT_TRUE(difference > -10000 && difference < static_cast<LONGLONG>(UnitsPerHour / 60)) << difference;
    }
}

TEST(LocalTime, ATimeThatTheOffsetMovesBeforeTheFirstIsRefused) {
    ZONE zone;
    zone.Set("EST5");
    const FILETIME first = Time(1);
    FILETIME local{};
    EXPECT_FALSE(FileTimeToLocalFileTime(&first, &local));
    EXPECT_EQ(DWORD{ERROR_INVALID_PARAMETER}, GetLastError());
}

}  // namespace
