#include <gtest/gtest.h>
#include <unicode/ucol.h>
#include <windows.h>

#include <cstdlib>
#include <memory>
#include <random>
#include <string>
#include <vector>

#include "win32/text/utf.h"

namespace {

// The orders below are those of US English, whatever the user of this machine speaks. Set before anything is compared.
[[maybe_unused]] const int pinned = setenv("LC_ALL", "en_US.UTF-8", 1);

int Sign(int value) { return value < 0 ? -1 : value > 0 ? 1 : 0; }

TEST(CompareTest, CaseCountsOnlyWhenAskedFor) {
    const struct {
        const char16_t *a, *b;
        int exact, ignoreCase;  // lstrcmpW, lstrcmpiW
    } cases[] = {{u"", u"", 0, 0},
                 {u"", u"a", -1, -1},
                 {u"KRBTGT", u"krbtgt", 1, 0},
                 {u"a", u"B", -1, -1},
                 {u"host", u"HOST$", -1, -1},
                 {u"\u00C9ric", u"\u00E9RIC", 1, 0},
                 {u"e\u0301", u"\u00E9", 0, 0},
                 {u"Zo\u00EB", u"Zoe", 1, 1},
                 {u"\uFF21", u"A", 1, 1},
                 {nullptr, u"", -1, -1},
                 {nullptr, nullptr, 0, 0}};
    for (const auto& c : cases) {
        SCOPED_TRACE(win32::ToUtf8(c.a ? c.a : u"null") + " and " + win32::ToUtf8(c.b ? c.b : u"null"));
        EXPECT_EQ(c.exact, Sign(lstrcmpW(c.a, c.b)));
        EXPECT_EQ(-c.exact, Sign(lstrcmpW(c.b, c.a)));
        EXPECT_EQ(c.ignoreCase, Sign(lstrcmpiW(c.a, c.b)));
        EXPECT_EQ(-c.ignoreCase, Sign(lstrcmpiW(c.b, c.a)));
    }
}

// The table for plain texts is a shortcut, never an opinion of its own.
TEST(CompareTest, PlainTextsCompareAsTheCollatorSays) {
    UErrorCode status = U_ZERO_ERROR;
    const std::unique_ptr<UCollator, decltype(&ucol_close)> collator(ucol_open("en_US", &status), ucol_close);
    ASSERT_TRUE(U_SUCCESS(status));
    std::mt19937 random(5);
    const auto text = [&](size_t length) {
        std::u16string units;
        while (units.size() < length) units += static_cast<char16_t>(u' ' + random() % 95);
        return units;
    };
    for (int round = 0; round < 20000; ++round) {
        const std::u16string a = text(random() % 4);
        std::u16string b = round % 2 == 0 ? text(random() % 4) : a;
        for (char16_t& unit : b)
            if ((unit | 0x20) >= u'a' && (unit | 0x20) <= u'z' && random() % 2 == 0) unit ^= 0x20;
        const auto collate = [&](const std::u16string& x, const std::u16string& y) {
            return static_cast<int>(ucol_strcoll(collator.get(), x.c_str(), -1, y.c_str(), -1));
        };
        ASSERT_EQ(collate(a, b), lstrcmpW(a.c_str(), b.c_str())) << win32::ToUtf8(a + u" | " + b);
        ASSERT_EQ(collate(win32::FoldName(a), win32::FoldName(b)), lstrcmpiW(a.c_str(), b.c_str()))
            << win32::ToUtf8(a + u" | " + b);
    }
}

TEST(CompareTest, SortKeysAreEqualExactlyWhenTheTextsAre) {
    const auto key = [](const char16_t* text, DWORD flags) {
        const auto map = [&](std::string& to, size_t room) {
            return LCMapStringW(LOCALE_USER_DEFAULT, LCMAP_SORTKEY | flags, text, -1,
                                room == 0 ? nullptr : reinterpret_cast<LPWSTR>(to.data()), static_cast<int>(room));
        };
        std::string bytes, cut;
        bytes.resize(static_cast<size_t>(map(bytes, 0)));
        EXPECT_EQ(bytes.size(), static_cast<size_t>(map(bytes, bytes.size())));
        cut = bytes;
        SetLastError(ERROR_SUCCESS);
        EXPECT_EQ(0, map(cut, cut.size() - 1));
        EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
        return bytes;
    };
    const char16_t* texts[] = {u"WS01$",     u"ws01$",      u"WS01", u"\u00C9ric",
                               u"\u00E9RIC", u"e\u0301ric", u"Eric", u"10.1"};
    for (const char16_t* a : texts) {
        for (const char16_t* b : texts) {
            SCOPED_TRACE(win32::ToUtf8(a) + " and " + win32::ToUtf8(b));
            EXPECT_EQ(lstrcmpW(a, b) == 0, key(a, 0) == key(b, 0));
            EXPECT_EQ(lstrcmpiW(a, b) == 0, key(a, NORM_IGNORECASE) == key(b, NORM_IGNORECASE));
        }
    }
}

TEST(UpperCaseTest, OneUnitIsReturnedAndATextIsChangedInPlace) {
    const auto unit = [](char16_t value) {
        return static_cast<char16_t>(reinterpret_cast<ULONG_PTR>(CharUpperW(MAKEINTRESOURCEW(value))));
    };
    EXPECT_EQ(u'O', unit(u'o'));
    EXPECT_EQ(u'1', unit(u'1'));
    EXPECT_EQ(u'\u00C4', unit(u'\u00E4'));
    WCHAR text[] = u"stra\u00DFe \u00E9 \U00010428";
    EXPECT_EQ(text, CharUpperW(text));
    EXPECT_EQ(u"STRA\u00DFE \u00C9 \U00010400", std::u16string(text));
}

TEST(LengthTest, NullHasNoLengthAndCopiesCarryTheTerminator) {
    EXPECT_EQ(0, lstrlenW(nullptr));
    EXPECT_EQ(3, lstrlenW(u"abc"));
    WCHAR copy[5] = {u'x', u'x', u'x', u'x', u'x'};
    EXPECT_EQ(copy, lstrcpyW(copy, u"abc"));
    EXPECT_EQ(std::u16string(u"abc\0x", 5), std::u16string(copy, 5));
}

}  // namespace
