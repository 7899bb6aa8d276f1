// Keys and values by the calls alone.
#include <tuple>

#include "tests/win32/registry_keys.h"

namespace {

using Registry = MACHINE_TEST;

TEST_F(Registry, AKeyDoesWhatItWasOpenedForUntilItIsClosed) {
    const OWNED_HANDLE event = AutoEvent();
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, Path, 0, KEY_READ, &key));
    // What the key is opened for; what a query of a value, a write and a notification give.
    const std::tuple<REGSAM, int64_t, LSTATUS, LSTATUS> cases[] = {
        {KEY_QUERY_VALUE, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED},
        {KEY_READ, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_SUCCESS},
        {KEY_WRITE, -ERROR_ACCESS_DENIED, ERROR_SUCCESS, ERROR_ACCESS_DENIED}};
    for (const auto& [access, query, set, notify] : cases) {
        const KEY opened(Path, access);
        EXPECT_EQ(query, Number(opened, u"Missing")) << access;
        EXPECT_EQ(set, SetNumber(opened, u"Heartbeat", 1)) << access;
        EXPECT_EQ(notify, Arm(opened, event)) << access;
    }
}

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
