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
    enum { Neither, Bytes, Units } wrong = Neither;  // which of both is malformed
};

// Both calls of the usual pattern: the size, then the text.
template <typename TEXT, typename CONVERT>
TEXT Converted(CONVERT convert) {
    TEXT text(static_cast<size_t>(convert(nullptr, 0)), 0);
    EXPECT_TRUE(text.empty() || convert(text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size()));
    return text;
}

TEST(ConversionTest, MalformedTextIsReplacedInBothDirections) {
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
        if (c.wrong != CASE::Units) {
            EXPECT_EQ(c.utf16, Converted<std::u16string>([&](LPWSTR wide, int units) {
                          return MultiByteToWideChar(CP_UTF8, 0, c.utf8.data(), static_cast<int>(c.utf8.size()), wide,
                                                     units);
                      }));
            EXPECT_EQ(c.utf16, win32::ToUtf16(c.utf8));
        }
        if (c.wrong == CASE::Bytes) continue;
        EXPECT_EQ(c.utf8, Converted<std::string>([&](LPSTR narrow, int bytes) {
                      return WideCharToMultiByte(CP_UTF8, 0, c.utf16.data(), static_cast<int>(c.utf16.size()), narrow,
                                                 bytes, nullptr, nullptr);
                  }));
        EXPECT_EQ(c.utf8, win32::ToUtf8(c.utf16));
    }
}

TEST(ConversionTest, ALengthOfMinusOneCountsTheTerminator) {
    WCHAR wide[4] = {u'x', u'x', u'x', u'x'};
    EXPECT_EQ(3, MultiByteToWideChar(CP_UTF8, 0, "ab", -1, nullptr, 0));
    EXPECT_EQ(3, MultiByteToWideChar(CP_UTF8, 0, "ab", -1, wide, 3));
    EXPECT_EQ(std::u16string(u"ab\0x", 4), std::u16string(wide, 4));
    EXPECT_EQ(3, WideCharToMultiByte(CP_UTF8, 0, u"ab", -1, nullptr, 0, nullptr, nullptr));
}

TEST(ConversionTest, NonsenseAndABufferTooSmallAreRefused) {
    WCHAR wide[8];
    BOOL used = FALSE;
    const auto error = [](auto convert) {
        SetLastError(Untouched);
        return convert() == 0 ? GetLastError() : 0;
    };
    constexpr DWORD invalid = ERROR_INVALID_PARAMETER;
    EXPECT_EQ(invalid, error([&] { return MultiByteToWideChar(1252, 0, "a", 1, wide, 8); }));
    EXPECT_EQ(invalid, error([&] { return MultiByteToWideChar(CP_UTF8, 0, nullptr, 1, wide, 8); }));
    EXPECT_EQ(invalid, error([&] { return MultiByteToWideChar(CP_UTF8, 0, "a", 0, wide, 8); }));
    EXPECT_EQ(invalid, error([&] { return MultiByteToWideChar(CP_UTF8, 0, "a", 1, nullptr, 8); }));
    EXPECT_EQ(invalid, error([&] { return WideCharToMultiByte(CP_UTF8, 0, u"a", 1, nullptr, 0, nullptr, &used); }));
    for (const int room : {1, 2}) {
        char bytes[4] = {'x', 'x', 'x', 'x'};
        EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER},
                  error([&] { return WideCharToMultiByte(CP_UTF8, 0, u"a\u00E9", 2, bytes, room, nullptr, nullptr); }));
        EXPECT_EQ('x', bytes[room]);
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
