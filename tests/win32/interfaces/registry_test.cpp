// Keys and values by the calls alone.
#include <cstring>
#include <tuple>

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

TEST_F(Registry, TheQueryProtocolGivesSizeTypeAndData) {
    const KEY key;
    const char16_t text[] = u"host";
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"IdentServer", 0, REG_SZ, reinterpret_cast<const BYTE*>(text), 10));
    const std::tuple<const char16_t*, bool, DWORD, LSTATUS, DWORD> cases[] = {
        {u"identserver", false, 0, ERROR_SUCCESS, 10},
        {u"IDENTSERVER", true, 9, ERROR_MORE_DATA, 10},
        {u"IdentServer", true, 10, ERROR_SUCCESS, 10},
        {u"Ident", true, 64, ERROR_FILE_NOT_FOUND, 64},
    };
    for (const auto& [value, buffer, room, status, needed] : cases) {
        SCOPED_TRACE(room);
        BYTE data[64] = {};
        DWORD size = room, type = 99;
        EXPECT_EQ(status, RegQueryValueExW(key, value, nullptr, &type, buffer ? data : nullptr, &size));
        EXPECT_EQ(needed, size);
        EXPECT_EQ(status == ERROR_FILE_NOT_FOUND ? 99u : REG_SZ, type);
        EXPECT_EQ(buffer && status == ERROR_SUCCESS, memcmp(text, data, 10) == 0);
    }
    EXPECT_EQ(ERROR_SUCCESS, RegDeleteValueW(key, u"identSERVER"));
    EXPECT_EQ(ERROR_FILE_NOT_FOUND, RegDeleteValueW(key, u"IdentServer"));
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
