// Addresses as text by the calls alone.
#include <winsock2.h>

#include "tests/win32/fixture.h"

namespace {

using namespace std::string_literals;
using TEXT_UNITS = std::u16string;

// The address as it is written again, or the error.
TEXT_UNITS Parse(TEXT_UNITS text, int family) {
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
    const std::pair<TEXT_UNITS, TEXT_UNITS> good[] = {
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
    for (const TEXT_UNITS& text :
         {u""s, u"-"s, u"1.2.3.256"s, u"1.16777216"s, u"4294967296"s, u"1.2.3."s, u".1.2.3"s, u"1.2.3.4.5"s,
          u"1.2.3.08"s, u"0x.1"s, u"1.2.3.4:"s, u"1.2.3.4:0"s, u"1.2.3.4:65536"s, u" 1.2.3.4"s, u"1.2.3.4 "s,
          u"1.2.3.\u0664"s, TEXT_UNITS(70'000, u'1')})
        EXPECT_EQ(u"invalid", Parse(text, AF_INET)) << testing::PrintToString(text.substr(0, 20));
    for (const TEXT_UNITS& text : {u""s, u"::1:"s, u"[::1"s, u"::1]"s, u"[::1]:0"s, u"[::1]x"s, u"fe80::1%"s,
                                   u"fe80::1%eth0"s, u"1::2::3"s, u"12345::"s, TEXT_UNITS(70'000, u':')})
        EXPECT_EQ(u"invalid", Parse(text, AF_INET6)) << testing::PrintToString(text.substr(0, 20));
}

}  // namespace
