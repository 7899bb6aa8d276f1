// The local zone.
#include <cstdlib>

#include "tests/win32/fixture.h"

namespace {

ULONGLONG Units(const FILETIME& time) { return ULONGLONG{time.dwHighDateTime} << 32 | time.dwLowDateTime; }
FILETIME Time(ULONGLONG units) { return {static_cast<DWORD>(units), static_cast<DWORD>(units >> 32)}; }

TEST(LocalTime, FollowsTheZoneAndItsConversionsAreInverse) {
    constexpr LONGLONG UnitsPerMinute = 600'000'000;
    const std::pair<const char*, LONGLONG> cases[] = {{"UTC0", 0}, {"<+0545>-5:45", 345}, {"EST5", -300}};  // minutes
    for (const auto& [name, minutes] : cases) {
        setenv("TZ", name, 1);
        const FILETIME noon = Time(125'963'423'999'990'000);
        FILETIME local{}, back{};
        ASSERT_TRUE(FileTimeToLocalFileTime(&noon, &local));
        EXPECT_EQ(minutes * UnitsPerMinute, static_cast<LONGLONG>(Units(local) - Units(noon))) << name;
        ASSERT_TRUE(LocalFileTimeToFileTime(&local, &back));
        EXPECT_EQ(Units(noon), Units(back)) << name;
    }
    unsetenv("TZ");
}

}  // namespace
