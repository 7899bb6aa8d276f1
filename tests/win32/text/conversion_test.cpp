#include <gtest/gtest.h>
#include <windows.h>

#include <string>

#include "win32/text/utf.h"

namespace {

constexpr DWORD Untouched = 0xDEAD;

struct CASE {
    const char* name;
    std::string utf8;
    std::u16string utf16;
    bool wellFormed = true;  // false: only the lenient direction gives the text above
};

std::u16string Widen(const std::string& text, DWORD flags, DWORD& error) {
    SetLastError(ERROR_SUCCESS);
    const int needed = MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), nullptr, 0);
    error = GetLastError();
    std::u16string wide(static_cast<size_t>(needed), u'\0');
    if (needed > 0) {
        EXPECT_EQ(needed,
                  MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), wide.data(), needed));
    }
    return wide;
}

std::string Narrow(const std::u16string& text, DWORD flags, DWORD& error) {
    SetLastError(ERROR_SUCCESS);
    const int units = static_cast<int>(text.size());
    const int needed = WideCharToMultiByte(CP_UTF8, flags, text.data(), units, nullptr, 0, nullptr, nullptr);
    error = GetLastError();
    std::string narrow(static_cast<size_t>(needed), '\0');
    if (needed > 0) {
        EXPECT_EQ(needed,
                  WideCharToMultiByte(CP_UTF8, flags, text.data(), units, narrow.data(), needed, nullptr, nullptr));
    }
    return narrow;
}

TEST(ConversionTest, NarrowTextBecomesWideAndMalformedBytesAreReplacedOrRefused) {
    const CASE cases[] = {
        {"letters", "Anna", u"Anna"},
        {"a NUL inside", std::string("a\0b", 3), std::u16string(u"a\0b", 3)},
        {"two and three bytes", "\xC3\xA9\xE2\x82\xAC", u"\u00E9\u20AC"},
        {"four bytes become a pair", "\xF0\x9F\x98\x80", u"\U0001F600"},
        {"a byte that begins nothing",
         "a\xFF"
         "b",
         u"a\uFFFDb", false},
        {"cut short at the end", "a\xE2\x82", u"a\uFFFD", false},
        {"longer than it needs to be", "\xC0\x80", u"\uFFFD\uFFFD", false},
        {"a surrogate in three bytes", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD", false},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        DWORD error = 0;
        EXPECT_EQ(c.utf16, Widen(c.utf8, 0, error));
        EXPECT_EQ(c.utf16, win32::ToUtf16(c.utf8));
        EXPECT_EQ(c.wellFormed ? c.utf16 : u"", Widen(c.utf8, MB_ERR_INVALID_CHARS, error));
        EXPECT_EQ(c.wellFormed ? ERROR_SUCCESS : ERROR_NO_UNICODE_TRANSLATION, error);
    }
}

TEST(ConversionTest, WideTextBecomesNarrowAndLoneSurrogatesAreReplacedOrRefused) {
    const CASE cases[] = {
        {"letters", "Anna", u"Anna"},
        {"a pair", "\xF0\x9F\x98\x80", u"\U0001F600"},
        {"first half alone", "\xEF\xBF\xBD!", std::u16string{0xD83D, u'!'}, false},
        {"second half alone", "\xEF\xBF\xBD", std::u16string{0xDE00}, false},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        DWORD error = 0;
        EXPECT_EQ(c.utf8, Narrow(c.utf16, 0, error));
        EXPECT_EQ(c.utf8, win32::ToUtf8(c.utf16));
        EXPECT_EQ(c.wellFormed ? c.utf8 : "", Narrow(c.utf16, WC_ERR_INVALID_CHARS, error));
        EXPECT_EQ(c.wellFormed ? ERROR_SUCCESS : ERROR_NO_UNICODE_TRANSLATION, error);
    }
}

TEST(ConversionTest, ALengthOfMinusOneCountsTheTerminator) {
    WCHAR wide[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(3, MultiByteToWideChar(CP_UTF8, 0, "ab", -1, nullptr, 0));
    EXPECT_EQ(3, MultiByteToWideChar(CP_ACP, 0, "ab", -1, wide, 3));
    EXPECT_EQ(std::u16string(u"ab\0x", 4), std::u16string(wide, 4));
    EXPECT_EQ(3, WideCharToMultiByte(CP_ACP, 0, u"ab", -1, nullptr, 0, nullptr, nullptr));
}

TEST(ConversionTest, ABufferTooSmallIsRefusedAndNotOverrun) {
    for (int room : {1, 2}) {
        char bytes[4] = {'x', 'x', 'x', 'x'};
        SetLastError(Untouched);
        EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, u"a\u00E9", 2, bytes, room, nullptr, nullptr));
        EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, GetLastError());
        EXPECT_EQ('x', bytes[room]);
    }
}

TEST(ConversionTest, NonsenseIsRefused) {
    WCHAR wide[8];
    BOOL used = FALSE;
    const struct {
        const char* name;
        int result;
        DWORD error;
    } cases[] = {
        {"code page", (SetLastError(0), MultiByteToWideChar(1252, 0, "a", 1, wide, 8)), GetLastError()},
        {"no text", (SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 8)), GetLastError()},
        {"count 0", (SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 8)), GetLastError()},
        {"room without buffer", (SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 8)), GetLastError()},
        {"default character", (SetLastError(0), WideCharToMultiByte(CP_UTF8, 0, u"a", 1, nullptr, 0, nullptr, &used)),
         GetLastError()},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(0, c.result);
        EXPECT_EQ(ERROR_INVALID_PARAMETER, c.error);
    }
}

TEST(NameTest, NamesAreTheSameWithoutRegardToCaseInAnyScript) {
    EXPECT_TRUE(win32::SameName(u"IdentServer", u"IDENTSERVER"));
    EXPECT_TRUE(win32::SameName(u"\u00C4rger \u0394", u"\u00E4RGER \u03B4"));
    EXPECT_TRUE(win32::SameName(u"\U00010400", u"\U00010428"));
    EXPECT_FALSE(win32::SameName(u"Ident", u"IdentServer"));
    EXPECT_FALSE(win32::SameName(u"IdentServer", u"Ident"));
    EXPECT_FALSE(win32::SameName(u"k", u"l"));
    EXPECT_EQ(win32::FoldName(u"\u00C4X\U00010400"), win32::FoldName(u"\u00E4x\U00010428"));
}

}  // namespace
