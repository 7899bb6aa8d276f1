// Keys and values by the calls alone.
#include "tests/win32/registry_keys.h"

namespace {

using Registry = MACHINE_TEST;

TEST_F(Registry, OwnValueChangesSignalOnceForEachArming) {
    const OWNED_HANDLE event = AutoEvent();
    const KEY key, statistics(Statistics);
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(statistics, u"Logons", 1));  // a subkey's
    EXPECT_FALSE(IsSet(event));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 1));
    EXPECT_TRUE(IsSet(event, SoonEnough));
    EXPECT_EQ(ERROR_SUCCESS, SetNumber(key, u"Heartbeat", 2));  // not armed: remembered
    EXPECT_FALSE(IsSet(event));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_TRUE(IsSet(event));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"Heartbeat"));
    EXPECT_TRUE(IsSet(event, SoonEnough));
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, event));
    RegCloseKey(key);  // ends the wait
    EXPECT_TRUE(IsSet(event));
}

}  // namespace
