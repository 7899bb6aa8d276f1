#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <winsock2.h>

#include <cstring>
#include <string>
#include <tuple>

namespace {

using TEXT_UNITS = std::u16string;
using namespace std::string_literals;

std::string Hex(const void* bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", static_cast<const unsigned char*>(bytes)[i]);
        text += pair;
    }
    return text;
}

// "bytes in hex/port/scope", or the error.
std::string Parse(TEXT_UNITS text, int family) {
    sockaddr_storage storage{};
    int length = sizeof(storage);
    SetLastError(0);
    if (WSAStringToAddressW(text.data(), family, nullptr, reinterpret_cast<sockaddr*>(&storage), &length) != 0)
        return std::to_string(WSAGetLastError());
    EXPECT_EQ(family, storage.ss_family);
    EXPECT_EQ(family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6), static_cast<size_t>(length));
    const auto& ipv4 = reinterpret_cast<sockaddr_in&>(storage);
    const auto& ipv6 = reinterpret_cast<sockaddr_in6&>(storage);
    const std::string port = "/" + std::to_string(ntohs(ipv4.sin_port));
    if (family == AF_INET) return Hex(&ipv4.sin_addr, 4) + port;
    return Hex(&ipv6.sin6_addr, 16) + port + "/" + std::to_string(ipv6.sin6_scope_id);
}

TEST(AddressFromText, TakesTheFormsThatWindowsTakesAndNoOthers) {
    sockaddr_storage place{};
    int room = sizeof(sockaddr_in) - 1;
    TEXT_UNITS shortOne = u"1.2.3.4";
    EXPECT_EQ(SOCKET_ERROR,
              WSAStringToAddressW(shortOne.data(), AF_INET, nullptr, reinterpret_cast<sockaddr*>(&place), &room));
    EXPECT_EQ(WSAEFAULT, WSAGetLastError());
    EXPECT_EQ(sizeof(sockaddr_in), static_cast<size_t>(room));
    EXPECT_EQ(0, place.ss_family);
    const std::string wrong = std::to_string(WSAEINVAL);
    const std::pair<const char16_t*, const char*> good[] = {
        {u"10.0.0.5", "0a000005/0"},
        {u"255.255.255.255:65535", "ffffffff/65535"},
        {u"10.1.258", "0a010102/0"},
        {u"0x7f.010.1.0xA", "7f08010a/0"},
        {u"4294967295", "ffffffff/0"},
        {u"1.2.3.4:0x10", "01020304/16"},
        {u"[::1]", "00000000000000000000000000000001/0/0"},
        {u"[FE80::1%4294967295]:1306", "fe800000000000000000000000000001/1306/4294967295"},
        {u"::ffff:10.0.0.5", "00000000000000000000ffff0a000005/0/0"},
    };
    for (const auto& [text, address] : good) {
        const bool ipv6 = TEXT_UNITS(text).find(u"::") != TEXT_UNITS::npos;
        EXPECT_EQ(address, Parse(text, ipv6 ? AF_INET6 : AF_INET));
        EXPECT_EQ(wrong, Parse(text, ipv6 ? AF_INET : AF_INET6)) << address;
        EXPECT_EQ(wrong, Parse(text, AF_UNIX)) << address;
    }
    for (const TEXT_UNITS& text :
         {u""s, u"-"s, u"1.2.3.256"s, u"256.1"s, u"1.16777216"s, u"4294967296"s, u"1.2.3."s, u".1.2.3"s, u"1.2.3.4.5"s,
          u"1.2.3.08"s, u"0x.1"s, u"1.2.3.4:"s, u"1.2.3.4:0"s, u"1.2.3.4:65536"s, u" 1.2.3.4"s, u"1.2.3.4 "s,
          u"1.2.3.\u0664"s, TEXT_UNITS(70'000, u'1')})
        EXPECT_EQ(wrong, Parse(text, AF_INET)) << testing::PrintToString(text.substr(0, 20));
    for (const TEXT_UNITS& text :
         {u""s, u"::1:"s, u"[::1"s, u"::1]"s, u"[::1]:"s, u"[::1]:0"s, u"[::1]x"s, u"fe80::1%"s, u"fe80::1%eth0"s,
          u"fe80::1%4294967296"s, u"1::2::3"s, u"12345::"s, TEXT_UNITS(70'000, u':')})
        EXPECT_EQ(wrong, Parse(text, AF_INET6)) << testing::PrintToString(text.substr(0, 20));
}

int Print(sockaddr* address, DWORD length, TEXT_UNITS& text, DWORD& units) {
    text.assign(1025, u'#');
    const int result = WSAAddressToStringW(address, length, nullptr, text.data(), &units);
    text = result == 0 ? TEXT_UNITS(text.c_str()) : TEXT_UNITS();
    return result == 0 ? 0 : WSAGetLastError();
}

TEST(AddressToText, WritesWhatWindowsWrites) {
    const std::tuple<const char*, uint16_t, uint32_t, const char16_t*> cases[] = {
        {"10.0.0.5", 0, 0, u"10.0.0.5"},
        {"255.255.255.255", 65535, 0, u"255.255.255.255:65535"},
        {"::1", 1306, 0, u"[::1]:1306"},
        {"FE80::ABCD", 0, 3, u"fe80::abcd%3"},
        {"2001:db8:0:0:1:0:0:1", 0, 0, u"2001:db8::1:0:0:1"},
        {"1:0:2:3:4:5:6:7", 0, 0, u"1:0:2:3:4:5:6:7"},
        {"1:2:3:4:5:6:0:0", 0, 0, u"1:2:3:4:5:6::"},
        {"::ffff:10.0.0.5", 0, 0, u"::ffff:10.0.0.5"},
        {"::10.0.0.5", 0, 0, u"::10.0.0.5"},
        {"::ffff:0:10.0.0.5", 0, 0, u"::ffff:0:10.0.0.5"},
        {"fe80::5efe:10.0.0.5", 0, 0, u"fe80::5efe:10.0.0.5"},
        {"::ffff:0:5", 0, 0, u"::ffff:0:5"},
    };
    TEXT_UNITS text;
    DWORD units = 1025;
    for (const auto& [input, port, scope, wanted] : cases) {
        SCOPED_TRACE(input);
        sockaddr_in6 ipv6{AF_INET6, htons(port), 0, {}, scope};
        sockaddr_in ipv4{AF_INET, htons(port), {}, {}};
        const bool old = inet_pton(AF_INET, input, &ipv4.sin_addr) == 1;
        ASSERT_TRUE(old || inet_pton(AF_INET6, input, &ipv6.sin6_addr) == 1);
        auto* const address = old ? reinterpret_cast<sockaddr*>(&ipv4) : reinterpret_cast<sockaddr*>(&ipv6);
        const DWORD length = old ? sizeof(ipv4) : sizeof(ipv6),
                    needed = static_cast<DWORD>(TEXT_UNITS(wanted).size() + 1);
        for (const DWORD room : {1025u, needed, needed - 1, 0u}) {
            units = room;
            EXPECT_EQ(room < needed ? WSAEFAULT : 0, Print(address, length, text, units)) << room;
            EXPECT_EQ(room < needed ? u"" : wanted, text) << room;
            EXPECT_EQ(needed, units) << room;
        }
        EXPECT_EQ(WSAEFAULT, Print(address, length - 1, text, units = 1025));
    }
    sockaddr_storage other{};
    other.ss_family = AF_UNIX;
    EXPECT_EQ(WSAEINVAL, Print(reinterpret_cast<sockaddr*>(&other), sizeof(other), text, units));
}

}  // namespace
