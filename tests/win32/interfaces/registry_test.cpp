// Keys and values by the calls alone.
#include "tests/win32/registry_keys.h"

namespace {

class Registry : public MACHINE_TEST {
protected:
    const OWNED_HANDLE event = AutoEvent();
};

TEST_F(Registry, AKeyDoesWhatItWasOpenedForUntilItIsClosed) {
    HKEY key = nullptr;
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegOpenKeyExW(HKEY_LOCAL_MACHINE, Path, 0, KEY_READ, &key));
    const struct {
        REGSAM access;
        int64_t query;
        LSTATUS set, notify;
    } cases[] = {{KEY_QUERY_VALUE, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_ACCESS_DENIED},
                 {KEY_READ, -ERROR_FILE_NOT_FOUND, ERROR_ACCESS_DENIED, ERROR_SUCCESS},
                 {KEY_WRITE, -ERROR_ACCESS_DENIED, ERROR_SUCCESS, ERROR_ACCESS_DENIED}};
    for (const auto& c : cases) {
        const KEY opened(Path, c.access);
        EXPECT_EQ(c.query, Number(opened, u"Missing")) << c.access;
        EXPECT_EQ(c.set, SetNumber(opened, u"Heartbeat", 1)) << c.access;
        EXPECT_EQ(c.notify, Arm(opened, event)) << c.access;
    }
}

TEST_F(Registry, OwnValueChangesSignalOnceForEachArming) {
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
