// What the owners and time stamps promise.
#include "platform/handles.h"

#include <gtest/gtest.h>

#include <vector>

#include "platform/time_stamp.h"

namespace keldwick {
namespace {

std::vector<int> Closed;

struct NUMBER_CLOSER {
    using TYPE = int;
    static void Close(TYPE number) {
        Closed.push_back(number);
        SetLastError(99);
    }
    static TYPE Empty() { return -1; }
};
using NUMBER = OWNER<NUMBER_CLOSER>;

TEST(Owner, ClosesOnceAndKeepsTheLastError) {
    Closed.clear();
    SetLastError(5);
    {
        NUMBER first(1);
        NUMBER second(2);
        second = std::move(first);
        EXPECT_FALSE(first);
        NUMBER third(std::move(second));
        *third.Put() = 3;
        third.Reset(third.Get());
        NUMBER released(4);
        EXPECT_EQ(4, released.Release());
        NUMBER zero(0);
        EXPECT_TRUE(zero) << "0 is a handle of this kind";
    }
    EXPECT_EQ((std::vector<int>{2, 1, 0, 3}), Closed);
    EXPECT_EQ(5u, GetLastError());
}

TEST(TimeStamp, ElapsedTimeIsUnsigned) {
    const SYSTEMTIME fields{2026, 11, 1, 16, 14, 5, 9, 250};
    const TIME_STAMP stamp = TIME_STAMP::FromFields(fields);
    TIME_STAMP later = stamp;
    later.AddMs(1500);
    EXPECT_EQ(TIME_STAMP::KIND::FileTime, stamp.Kind());
    EXPECT_EQ(TIME_STAMP::KIND::Absolute, later.Kind());
    EXPECT_EQ(1500u, stamp.ElapsedMs(later));
    EXPECT_LT(1000ull * 86400 * 365, later.ElapsedMs(stamp)) << "a stamp in the future is very old";
    SYSTEMTIME back{};
    ASSERT_TRUE(later.ToFields(back));
    EXPECT_EQ(10750, back.wSecond * 1000 + back.wMilliseconds);
    EXPECT_EQ(stamp.Units(), stamp.ToLocal().FromLocal().Units());
    TIME_STAMP interval = TIME_STAMP::IntervalMs(60000);
    interval.Negate();
    EXPECT_EQ(-600000000, interval.DueTime().QuadPart);
    EXPECT_EQ(TIME_STAMP::KIND::Interval, interval.Kind());
    EXPECT_EQ(0, TIME_STAMP::FromFields(SYSTEMTIME{}).Units());
}

}  // namespace
}  // namespace keldwick
