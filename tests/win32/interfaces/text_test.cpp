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
    const auto widen = [](const std::string& from) {
        return Converted<std::u16string>([&](LPWSTR to, int room) {
            return MultiByteToWideChar(CP_UTF8, 0, from.data(), static_cast<int>(from.size()), to, room);
        });
    };
    const auto narrow = [](const std::u16string& from) {
        return Converted<std::string>([&](LPSTR to, int room) {
            return WideCharToMultiByte(CP_UTF8, 0, from.data(), static_cast<int>(from.size()), to, room, nullptr,
                                       nullptr);
        });
    };
    const std::u16string whole = u"a\0\u00E9\u20AC\U0001F600"s;
    EXPECT_EQ(whole, widen("a\0\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"s));
    EXPECT_EQ("a\0\xC3\xA9\xE2\x82\xAC\xF0\x9F\x98\x80"s, narrow(whole));
    EXPECT_EQ("\xEF\xBF\xBD!", narrow({0xD83D, u'!'}));
    const std::pair<const char*, const char16_t*> malformed[] = {{"a\377b", u"a\uFFFDb"},
                                                                 {"a\xE2\x82", u"a\uFFFD"},
                                                                 {"\xC0\x80", u"\uFFFD\uFFFD"},
                                                                 {"\xED\xA0\x80", u"\uFFFD\uFFFD\uFFFD"}};
    for (const auto& [bytes, text] : malformed) EXPECT_EQ(text, widen(bytes));
}

}  // namespace
