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
    enum { Neither, Bytes, Units } wrong = Neither;  // which only the lenient direction makes the other of
};

// Both calls of the usual pattern: the size, then the text.
template <typename TEXT, typename CONVERT>
TEXT Converted(DWORD& error, CONVERT convert) {
    SetLastError(ERROR_SUCCESS);
    const int needed = convert(nullptr, 0);
    error = GetLastError();
    TEXT text(static_cast<size_t>(needed), 0);
    EXPECT_TRUE(needed == 0 || convert(text.data(), needed) == needed);
    return text;
}

std::u16string Widen(const std::string& text, DWORD flags, DWORD& error) {
    return Converted<std::u16string>(error, [&](LPWSTR wide, int units) {
        return MultiByteToWideChar(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), wide, units);
    });
}

std::string Narrow(const std::u16string& text, DWORD flags, DWORD& error) {
    return Converted<std::string>(error, [&](LPSTR narrow, int bytes) {
        return WideCharToMultiByte(CP_UTF8, flags, text.data(), static_cast<int>(text.size()), narrow, bytes, nullptr,
                                   nullptr);
    });
}

TEST(ConversionTest, MalformedTextIsReplacedOrRefusedInBothDirections) {
    const CASE cases[] = {
        {"letters", "Anna", u"Anna"},
        {"a NUL inside", {"a\0b", 3}, {u"a\0b", 3}},
        {"two and three bytes", "\xC3\xA9\xE2\x82\xAC", u"\u00E9\u20AC"},
        {"four bytes become a pair", "\xF0\x9F\x98\x80", u"\U0001F600"},
        {"a byte that begins nothing", "a\377b", u"a\uFFFDb", CASE::Bytes},
        {"cut short at the end", "a\xE2\x82", u"a\uFFFD", CASE::Bytes},
        {"longer than it needs to be", "\xC0\x80", u"\uFFFD\uFFFD", CASE::Bytes},
        {"a surrogate in three bytes", "\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD", CASE::Bytes},
        {"first half alone", "\xEF\xBF\xBD!", {0xD83D, u'!'}, CASE::Units},
        {"second half alone", "\xEF\xBF\xBD", {0xDE00}, CASE::Units},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        DWORD error = 0;
        const DWORD wanted = c.wrong == CASE::Neither ? ERROR_SUCCESS : ERROR_NO_UNICODE_TRANSLATION;
        if (c.wrong != CASE::Units) {
            EXPECT_EQ(c.utf16, Widen(c.utf8, 0, error));
            EXPECT_EQ(c.utf16, win32::ToUtf16(c.utf8));
            EXPECT_EQ(c.wrong == CASE::Neither ? c.utf16 : u"", Widen(c.utf8, MB_ERR_INVALID_CHARS, error));
            EXPECT_EQ(wanted, error);
        }
        if (c.wrong == CASE::Bytes) continue;
        EXPECT_EQ(c.utf8, Narrow(c.utf16, 0, error));
        EXPECT_EQ(c.utf8, win32::ToUtf8(c.utf16));
        EXPECT_EQ(c.wrong == CASE::Neither ? c.utf8 : "", Narrow(c.utf16, WC_ERR_INVALID_CHARS, error));
        EXPECT_EQ(wanted, error);
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
    const auto refused = [](int result) { return result == 0 && GetLastError() == ERROR_INVALID_PARAMETER; };
    EXPECT_TRUE(refused(MultiByteToWideChar(1252, 0, "a", 1, wide, 8)));
    EXPECT_TRUE(refused((SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 8))));
    EXPECT_TRUE(refused((SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 8))));
    EXPECT_TRUE(refused((SetLastError(0), MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 8))));
    EXPECT_TRUE(refused((SetLastError(0), WideCharToMultiByte(CP_UTF8, 0, u"a", 1, nullptr, 0, nullptr, &used))));
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
