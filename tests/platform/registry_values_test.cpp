#include "platform/registry_values.h"

#include <gtest/gtest.h>

#include "platform/handles.h"
#include "tests/support/debug_lines.h"
#include "tests/support/temporary_root.h"

namespace keldwick {
namespace {

TEST(RegistryValues, NumbersHaveFourBytesAndTextsAnyEnd) {
    const TEMPORARY_ROOT root;
    REG_KEY key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, TEXT("SOFTWARE\\Test"), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(),
                    nullptr);
    const struct {
        DWORD type, bytes, error;  // as a number
        const char* text;          // null: none
    } cases[] = {{REG_DWORD, 4, 0, nullptr},        {REG_DWORD, 2, 1804, nullptr}, {REG_DWORD, 8, 234, nullptr},
                 {REG_BINARY, 4, 1804, nullptr},    {REG_SZ, 6, 1804, "ab"},       {REG_SZ, 9, 1804, "abcd"},
                 {REG_EXPAND_SZ, 10, 1804, "abcd"}, {REG_SZ, 1, 1804, ""},         {REG_SZ, 0, 1804, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " of " + std::to_string(c.bytes));
        const auto* const bytes = reinterpret_cast<const BYTE*>(TEXT("abcd"));
        ASSERT_EQ(0, RegSetValueExW(key.Get(), TEXT("V"), 0, c.type, bytes, c.bytes));
        DWORD number = 7;
        EXPECT_EQ(c.error, RegGetDword(key.Get(), TEXT("V"), number) ? 0 : GetLastError());
        EXPECT_EQ(c.error == 0 ? 0x620061u : 7u, number);
        STRING text(TEXT("old"));
        EXPECT_EQ(c.text != nullptr, RegGetString(key.Get(), TEXT("V"), text));
        EXPECT_STREQ(c.text != nullptr ? c.text : "old", Narrow(text.Text()).c_str());
        EXPECT_EQ(0, text.Text()[text.Length()]);
    }
}

}  // namespace
}  // namespace keldwick
