// Texts by the calls alone: comparison, conversion, addresses.
#include <winsock2.h>

#include <cstdlib>

#include "tests/win32/fixture.h"

namespace {

// The orders below are those of US English, whatever the user of this machine speaks. Set before anything is compared.
[[maybe_unused]] const int pinned = setenv("LC_ALL", "en_US.UTF-8", 1);

using namespace std::string_literals;

int Sign(int value) { return value < 0 ? -1 : value > 0 ? 1 : 0; }

TEST(Compare, CaseCountsOnlyWhenAskedFor) {
    const struct {
        const char16_t *a, *b;
        int exact, ignoreCase;  // lstrcmpW, lstrcmpiW
    } cases[] = {{u"", u"", 0, 0},
                 {u"", u"a", -1, -1},
                 {u"KRBTGT", u"krbtgt", 1, 0},
                 {u"a", u"B", -1, -1},
                 {u"\u00C9ric", u"\u00E9RIC", 1, 0},
                 {u"e\u0301", u"\u00E9", 0, 0},
                 {u"Zo\u00EB", u"Zoe", 1, 1},
                 {nullptr, u"", -1, -1}};
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        EXPECT_EQ(c.exact, Sign(lstrcmpW(c.a, c.b)));
        EXPECT_EQ(-c.exact, Sign(lstrcmpW(c.b, c.a)));
        EXPECT_EQ(c.ignoreCase, Sign(lstrcmpiW(c.a, c.b)));
        EXPECT_EQ(-c.ignoreCase, Sign(lstrcmpiW(c.b, c.a)));
    }
}

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

// The address as it is written again, or the error.
std::u16string Parse(std::u16string text, int family) {
    sockaddr_storage storage{};
    int length = sizeof(storage);
    auto* const address = reinterpret_cast<sockaddr*>(&storage);
    if (WSAStringToAddressW(text.data(), family, nullptr, address, &length) != 0)
        return WSAGetLastError() == WSAEINVAL ? u"invalid" : u"another error";
    WCHAR again[100];
    DWORD units = 100;
    EXPECT_EQ(0, WSAAddressToStringW(address, static_cast<DWORD>(length), nullptr, again, &units));
    EXPECT_EQ(units, static_cast<DWORD>(lstrlenW(again)) + 1);
    WCHAR tooShort[100];
    --units;
    EXPECT_EQ(SOCKET_ERROR, WSAAddressToStringW(address, static_cast<DWORD>(length), nullptr, tooShort, &units));
    EXPECT_EQ(WSAEFAULT, WSAGetLastError());
    return again;
}

TEST(Addresses, TakeTheFormsThatWindowsTakesAndNoOthers) {
    const std::pair<std::u16string, std::u16string> good[] = {
        {u"10.0.0.5", u"10.0.0.5"},
        {u"255.255.255.255:65535", u"255.255.255.255:65535"},
        {u"10.1.258", u"10.1.1.2"},
        {u"0x7f.010.1.0xA", u"127.8.1.10"},
        {u"4294967295", u"255.255.255.255"},
        {u"1.2.3.4:0x10", u"1.2.3.4:16"},
        {u"[::1]", u"::1"},
        {u"[FE80::1%4294967295]:1306", u"[fe80::1%4294967295]:1306"},
        {u"2001:db8:0:0:1:0:0:1", u"2001:db8::1:0:0:1"},
        {u"1:0:2:3:4:5:6:7", u"1:0:2:3:4:5:6:7"},
        {u"1:2:3:4:5:6:0:0", u"1:2:3:4:5:6::"},
        {u"::ffff:10.0.0.5", u"::ffff:10.0.0.5"},
    };
    for (const auto& [text, written] : good) {
        const bool ipv6 = text.find(u':') < text.rfind(u':');
        EXPECT_EQ(written, Parse(text, ipv6 ? AF_INET6 : AF_INET));
        EXPECT_EQ(u"invalid", Parse(text, ipv6 ? AF_INET : AF_INET6));
    }
    for (const std::u16string& text :
         {u""s, u"-"s, u"1.2.3.256"s, u"1.16777216"s, u"4294967296"s, u"1.2.3."s, u".1.2.3"s, u"1.2.3.4.5"s,
          u"1.2.3.08"s, u"0x.1"s, u"1.2.3.4:"s, u"1.2.3.4:0"s, u"1.2.3.4:65536"s, u" 1.2.3.4"s, u"1.2.3.4 "s,
          u"1.2.3.\u0664"s, std::u16string(70'000, u'1')})
        EXPECT_EQ(u"invalid", Parse(text, AF_INET)) << testing::PrintToString(text.substr(0, 20));
    for (const std::u16string& text : {u""s, u"::1:"s, u"[::1"s, u"::1]"s, u"[::1]:0"s, u"[::1]x"s, u"fe80::1%"s,
                                       u"fe80::1%eth0"s, u"1::2::3"s, u"12345::"s, std::u16string(70'000, u':')})
        EXPECT_EQ(u"invalid", Parse(text, AF_INET6)) << testing::PrintToString(text.substr(0, 20));
}

}  // namespace
