#include <gtest/gtest.h>
#include <windows.h>

#include <cstdlib>
#include <string>

#include "tests/support/last_error.h"

namespace {

class EnvironmentTest : public testing::Test {
protected:
    EnvironmentTest() {
        setenv("Keldwick_Test", "0x402", 1);
        setenv("KELDWICK_EMPTY", "", 1);
        setenv("KELDWICK_WORD", "\xC3\xA9t\xC3\xA9", 1);
    }
    ~EnvironmentTest() override {
        for (const char* name : {"Keldwick_Test", "KELDWICK_EMPTY", "KELDWICK_WORD"}) unsetenv(name);
    }
};

TEST_F(EnvironmentTest, AVariableIsFoundInAnyCaseAndAnEmptyOneIsToldFromAMissingOne) {
    WCHAR value[8] = u"-------";
    EXPECT_EQ(6u, GetEnvironmentVariableW(u"KELDWICK_TEST", nullptr, 0));
    EXPECT_EQ(6u, GetEnvironmentVariableW(u"keldwick_test", value, 5));
    EXPECT_EQ(u"-------", std::u16string(value));
    EXPECT_EQ(5u, GetEnvironmentVariableW(u"keldwick_test", value, 6));
    EXPECT_EQ(u"0x402", std::u16string(value));
    SetLastError(5);
    EXPECT_EQ(ERROR_SUCCESS, ErrorOf(GetEnvironmentVariableW(u"KELDWICK_EMPTY", value, 8) != 0));
    EXPECT_EQ(ERROR_ENVVAR_NOT_FOUND, ErrorOf(GetEnvironmentVariableW(u"KELDWICK_MISSING", value, 8) != 0));
}

TEST_F(EnvironmentTest, KnownNamesAreExpandedAndUnknownOnesKept) {
    const struct {
        const char16_t *text, *expanded;
    } cases[] = {
        {u"", u""},
        {u"%keldwick_word%\\x.dll", u"\u00E9t\u00E9\\x.dll"},
        {u"a%KELDWICK_EMPTY%b", u"ab"},
        {u"%NO_SUCH_NAME_HERE%", u"%NO_SUCH_NAME_HERE%"},
        {u"100%", u"100%"},
        {u"%no such%KELDWICK_WORD%", u"%no such\u00E9t\u00E9"},
        {u"%%", u"%%"},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.text, c.text + lstrlenW(c.text)));
        const DWORD needed = ExpandEnvironmentStringsW(c.text, nullptr, 0);
        ASSERT_EQ(std::u16string(c.expanded).size() + 1, needed);
        std::u16string buffer(needed, u'x');
        EXPECT_EQ(needed, ExpandEnvironmentStringsW(c.text, buffer.data(), needed - 1));
        EXPECT_EQ(u'x', buffer[needed - 1]);
        EXPECT_EQ(needed, ExpandEnvironmentStringsW(c.text, buffer.data(), needed));
        EXPECT_EQ(c.expanded, std::u16string(buffer.c_str()));
    }
}

TEST(ThreadLocaleTest, FollowsTheEnvironmentAndIsUsEnglishWithoutOne) {
    const char* all = std::getenv("LC_ALL");
    const std::string before = all != nullptr ? all : "";
    const std::pair<const char*, LCID> cases[] = {
        {"C", 0x0409}, {"POSIX", 0x0409}, {"de_AT.UTF-8", 0x0C07}, {"fr_FR@euro", 0x040C}, {"x_nowhere", 0x0409}};
    for (const auto& [variable, locale] : cases) {
        setenv("LC_ALL", variable, 1);
        EXPECT_EQ(locale, GetThreadLocale()) << variable;
    }
    all != nullptr ? setenv("LC_ALL", before.c_str(), 1) : unsetenv("LC_ALL");
}

}  // namespace
