#include "platform/registry_values.h"

#include <gtest/gtest.h>

#include "platform/handles.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"

WRAP_CALL(LSTATUS, RegCloseKey, (HKEY key), (key))

namespace keldwick {
namespace {

class RegistryValues : public ::testing::Test {
protected:
    RegistryValues() {
        RegCreateKeyExW(HKEY_LOCAL_MACHINE, TEXT("SOFTWARE\\Test"), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(),
                        nullptr);
    }
    void Store(DWORD type, const void* bytes, DWORD count) {
        ASSERT_EQ(0, RegSetValueExW(key.Get(), TEXT("V"), 0, type, static_cast<const BYTE*>(bytes), count));
    }

    TEMPORARY_ROOT root;
    REG_KEY key;
};

TEST_F(RegistryValues, NumbersMustBeDwordsOfFourBytes) {
    DWORD value = 7;
    const auto failure = [&] { return RegGetDword(key.Get(), TEXT("V"), value) ? 0 : GetLastError(); };
    EXPECT_EQ(2u, failure());
    Store(REG_BINARY, "\1\0\0\0", 4);
    EXPECT_EQ(1804u, failure());
    Store(REG_DWORD, "\1\0", 2);
    EXPECT_EQ(1804u, failure());
    Store(REG_SZ, "3\0000\0\0", 6);  // a text of two digits is longer than a number, yet it is the type that is wrong
    EXPECT_EQ(1804u, failure());
    Store(REG_DWORD, "12345", 5);
    EXPECT_EQ(234u, failure());
    EXPECT_EQ(7u, value);
    EXPECT_TRUE(RegSetDword(key.Get(), TEXT("V"), 0xFFFFFFFF));
    EXPECT_EQ(0u, failure());
    EXPECT_EQ(0xFFFFFFFFu, value);
}

TEST_F(RegistryValues, TextsAreReadWhateverTheirStoredEnd) {
    const struct {
        DWORD type, bytes;
        const char* expected;
    } cases[] = {{REG_EXPAND_SZ, 10, "abcd"},
                 {REG_SZ, 8, "abc"},
                 {REG_SZ, 9, "abcd"},
                 {REG_SZ, 1, ""},
                 {REG_SZ, 2, ""},
                 {REG_SZ, 0, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.bytes);
        Store(c.type, TEXT("abcd"), c.bytes);
        STRING value(TEXT("old"));
        EXPECT_TRUE(RegGetString(key.Get(), TEXT("V"), value));
        EXPECT_EQ(c.expected, Narrow(value.Text()));
        EXPECT_EQ(0, value.Text()[value.Length()]);
    }
    STRING value(TEXT("old"));
    ASSERT_TRUE(RegSetDword(key.Get(), TEXT("V"), 1));
    EXPECT_FALSE(RegGetString(key.Get(), TEXT("V"), value));
    EXPECT_EQ(1804u, GetLastError());
    EXPECT_FALSE(RegGetString(key.Get(), TEXT("none"), value));
    EXPECT_EQ(2u, GetLastError());
    EXPECT_EQ("old", Narrow(value));
}

TEST_F(RegistryValues, RootKeysAreForgottenAndAFailingCloseIsTheLastError) {
    {
        const FAIL_CALL refuses(RegCloseKey_calls, ERROR_INVALID_HANDLE, 0);
        SetLastError(1);
        REG_KEY(HKEY_LOCAL_MACHINE).Reset();
        EXPECT_EQ(0, refuses.Failed());
        EXPECT_EQ(1u, GetLastError());
        REG_KEY other(key.Release());
        HKEY kept = other.Get();
        other.Reset();
        EXPECT_EQ(DWORD(ERROR_INVALID_HANDLE), GetLastError());
        EXPECT_EQ(nullptr, other.Get());
        key.Reset(kept);
    }
    SetLastError(5);
    key.Reset();
    EXPECT_EQ(5u, GetLastError());
}

}  // namespace
}  // namespace keldwick
