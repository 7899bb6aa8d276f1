// Conversion of texts by the calls alone.
#include "tests/win32/fixture.h"

namespace {

using namespace std::string_literals;

// Both calls of the usual pattern: the size, then the text.
template <typename TEXT, typename CONVERT>
TEXT Converted(CONVERT convert) {
    TEXT text(static_cast<size_t>(convert(nullptr, 0)), 0);
    EXPECT_TRUE(text.empty() || convert(text.data(), static_cast<int>(text.size())) == static_cast<int>(text.size()));
    return text;
}

TEST(Conversion, MalformedTextIsReplacedInBothDirections) {
    struct CASE {
        std::string utf8;
        std::u16string utf16;
        enum { Neither, Bytes, Units } wrong = Neither;  // which of both is malformed
    };
    const CASE cases[] = {{"Anna"s, u"Anna"s},
                          {"a\0b"s, u"a\0b"s},
                          {"\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80", u"\u00E9\u20AC\U0001F600"},
                          {"a\377b", u"a\uFFFDb", CASE::Bytes},
                          {"a\xE2\x82", u"a\uFFFD", CASE::Bytes},
                          {"\xC0\x80", u"\uFFFD\uFFFD", CASE::Bytes},
                          {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD", CASE::Bytes},
                          {"\xEF\xBF\xBD!", {0xD83D, u'!'}, CASE::Units}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.utf8);
        const int bytes = static_cast<int>(c.utf8.size()), units = static_cast<int>(c.utf16.size());
        const auto widen = [&](LPWSTR to, int room) {
            return MultiByteToWideChar(CP_UTF8, 0, c.utf8.data(), bytes, to, room);
        };
        const auto narrow = [&](LPSTR to, int room) {
            return WideCharToMultiByte(CP_UTF8, 0, c.utf16.data(), units, to, room, nullptr, nullptr);
        };
        EXPECT_TRUE(c.wrong == CASE::Units || c.utf16 == Converted<std::u16string>(widen));
        EXPECT_TRUE(c.wrong == CASE::Bytes || c.utf8 == Converted<std::string>(narrow));
    }
    for (const int room : {1, 2}) {
        char text[] = "xxx";
        EXPECT_EQ(0, WideCharToMultiByte(CP_UTF8, 0, u"a\u00E9", 2, text, room, nullptr, nullptr));
        EXPECT_EQ(DWORD{ERROR_INSUFFICIENT_BUFFER}, GetLastError());
        EXPECT_EQ('x', text[room]);
    }
}

}  // namespace
