#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <winsock2.h>

#include <cstring>
#include <string>

namespace {

using TEXT_UNITS = std::u16string;

struct PARSED {
    int result;
    int error;
    std::string address;  // "bytes in hex/port/scope"
};

std::string Hex(const void* bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) {
        char pair[3];
        std::snprintf(pair, sizeof(pair), "%02x", static_cast<const unsigned char*>(bytes)[i]);
        text += pair;
    }
    return text;
}

PARSED Parse(TEXT_UNITS text, int family) {
    sockaddr_storage storage{};
    int length = sizeof(storage);
    SetLastError(0);
    PARSED parsed{};
    parsed.result = WSAStringToAddressW(text.data(), family, nullptr, reinterpret_cast<sockaddr*>(&storage), &length);
    parsed.error = WSAGetLastError();
    if (parsed.result != 0) return parsed;
    EXPECT_EQ(family, storage.ss_family);
    if (family == AF_INET) {
        const auto& ipv4 = reinterpret_cast<sockaddr_in&>(storage);
        EXPECT_EQ(sizeof(ipv4), static_cast<size_t>(length));
        parsed.address = Hex(&ipv4.sin_addr, 4) + "/" + std::to_string(ntohs(ipv4.sin_port));
    } else {
        const auto& ipv6 = reinterpret_cast<sockaddr_in6&>(storage);
        EXPECT_EQ(sizeof(ipv6), static_cast<size_t>(length));
        parsed.address = Hex(&ipv6.sin6_addr, 16) + "/" + std::to_string(ntohs(ipv6.sin6_port)) + "/" +
                         std::to_string(ipv6.sin6_scope_id);
    }
    return parsed;
}

TEST(AddressFromText, TakesTheFormsThatWindowsTakesAndNoOthers) {
    const std::string loopback = "00000000000000000000000000000001";
    struct CASE {
        const char16_t* text;
        int family;
        std::string address;  // empty: 10022
    };
    const CASE cases[] = {
        {u"10.0.0.5", AF_INET, "0a000005/0"},
        {u"255.255.255.255:65535", AF_INET, "ffffffff/65535"},
        {u"10.1", AF_INET, "0a000001/0"},
        {u"10.1.258", AF_INET, "0a010102/0"},
        {u"0x7f.010.1.0xA", AF_INET, "7f08010a/0"},
        {u"4294967295", AF_INET, "ffffffff/0"},
        {u"1.2.3.4:0x10", AF_INET, "01020304/16"},
        {u"", AF_INET, ""},
        {u"-", AF_INET, ""},
        {u"1.2.3.256", AF_INET, ""},
        {u"256.1", AF_INET, ""},
        {u"1.16777216", AF_INET, ""},
        {u"4294967296", AF_INET, ""},
        {u"1.2.3.", AF_INET, ""},
        {u".1.2.3", AF_INET, ""},
        {u"1.2.3.4.5", AF_INET, ""},
        {u"1.2.3.08", AF_INET, ""},
        {u"0x.1", AF_INET, ""},
        {u"1.2.3.4:", AF_INET, ""},
        {u"1.2.3.4:0", AF_INET, ""},
        {u"1.2.3.4:65536", AF_INET, ""},
        {u" 1.2.3.4", AF_INET, ""},
        {u"1.2.3.4 ", AF_INET, ""},
        {u"1.2.3.\u0664", AF_INET, ""},
        {u"::1", AF_INET, ""},
        {u"::1", AF_INET6, loopback + "/0/0"},
        {u"[::1]", AF_INET6, loopback + "/0/0"},
        {u"[::1]:1306", AF_INET6, loopback + "/1306/0"},
        {u"fe80::1%12", AF_INET6, "fe800000000000000000000000000001/0/12"},
        {u"[FE80::1%4294967295]:7", AF_INET6, "fe800000000000000000000000000001/7/4294967295"},
        {u"::ffff:10.0.0.5", AF_INET6, "00000000000000000000ffff0a000005/0/0"},
        {u"::1:", AF_INET6, ""},
        {u"[::1", AF_INET6, ""},
        {u"::1]", AF_INET6, ""},
        {u"[::1]:", AF_INET6, ""},
        {u"[::1]:0", AF_INET6, ""},
        {u"[::1]x", AF_INET6, ""},
        {u"fe80::1%", AF_INET6, ""},
        {u"fe80::1%eth0", AF_INET6, ""},
        {u"fe80::1%4294967296", AF_INET6, ""},
        {u"1::2::3", AF_INET6, ""},
        {u"12345::", AF_INET6, ""},
        {u"10.0.0.5", AF_INET6, ""},
        {u"", AF_INET6, ""},
        {u"10.0.0.5", AF_UNIX, ""},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(testing::PrintToString(TEXT_UNITS(c.text)) + " family " + std::to_string(c.family));
        const PARSED parsed = Parse(c.text, c.family);
        EXPECT_EQ(c.address, parsed.address);
        EXPECT_EQ(c.address.empty() ? SOCKET_ERROR : 0, parsed.result);
        if (c.address.empty()) {
            EXPECT_EQ(WSAEINVAL, parsed.error);
        }
    }
    EXPECT_EQ(WSAEINVAL, Parse(TEXT_UNITS(70'000, u'1'), AF_INET).error);
    EXPECT_EQ(WSAEINVAL, Parse(TEXT_UNITS(70'000, u':'), AF_INET6).error);
}

TEST(AddressFromText, APlaceThatIsTooSmallIsToldTheSizeAndLeftAlone) {
    for (const int family : {AF_INET, AF_INET6}) {
        sockaddr_storage storage{};
        const int needed = family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        int length = needed - 1;
        TEXT_UNITS text = family == AF_INET ? u"1.2.3.4" : u"::1";
        EXPECT_EQ(SOCKET_ERROR,
                  WSAStringToAddressW(text.data(), family, nullptr, reinterpret_cast<sockaddr*>(&storage), &length));
        EXPECT_EQ(WSAEFAULT, WSAGetLastError());
        EXPECT_EQ(needed, length);
        EXPECT_EQ(0, storage.ss_family);
    }
}

struct TEXT_RESULT {
    int result;
    TEXT_UNITS text;
    DWORD units;
};

TEXT_RESULT Print(sockaddr* address, DWORD length, DWORD room = 1025) {
    TEXT_UNITS text(1025, u'#');
    DWORD units = room;
    const int result = WSAAddressToStringW(address, length, nullptr, text.data(), &units);
    return {result, result == 0 ? TEXT_UNITS(text.c_str()) : TEXT_UNITS(), units};
}

TEST(AddressToText, WritesWhatWindowsWrites) {
    struct CASE {
        const char* address;
        uint16_t port;
        uint32_t scope;
        const char16_t* text;
    };
    const CASE cases[] = {
        {"10.0.0.5", 0, 0, u"10.0.0.5"},
        {"255.255.255.255", 65535, 0, u"255.255.255.255:65535"},
        {"::", 0, 0, u"::"},
        {"::1", 0, 0, u"::1"},
        {"::1", 1306, 0, u"[::1]:1306"},
        {"FE80::ABCD", 0, 3, u"fe80::abcd%3"},
        {"fe80::1", 7, 4294967295, u"[fe80::1%4294967295]:7"},
        {"2001:db8:0:0:1:0:0:1", 0, 0, u"2001:db8::1:0:0:1"},
        {"2001:0:0:1:0:0:0:1", 0, 0, u"2001:0:0:1::1"},
        {"1:0:2:3:4:5:6:7", 0, 0, u"1:0:2:3:4:5:6:7"},
        {"1:2:3:4:5:6:0:0", 0, 0, u"1:2:3:4:5:6::"},
        {"::ffff:10.0.0.5", 0, 0, u"::ffff:10.0.0.5"},
        {"::10.0.0.5", 0, 0, u"::10.0.0.5"},
        {"::ffff:0:10.0.0.5", 0, 0, u"::ffff:0:10.0.0.5"},
        {"fe80::5efe:10.0.0.5", 0, 0, u"fe80::5efe:10.0.0.5"},
        {"::ffff:0:5", 0, 0, u"::ffff:0:5"},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.address);
        sockaddr_in ipv4{};
        sockaddr_in6 ipv6{};
        sockaddr* address = reinterpret_cast<sockaddr*>(&ipv4);
        DWORD length = sizeof(ipv4);
        if (inet_pton(AF_INET, c.address, &ipv4.sin_addr) == 1) {
            ipv4.sin_family = AF_INET;
            ipv4.sin_port = htons(c.port);
        } else {
            ASSERT_EQ(1, inet_pton(AF_INET6, c.address, &ipv6.sin6_addr));
            ipv6.sin6_family = AF_INET6;
            ipv6.sin6_port = htons(c.port);
            ipv6.sin6_scope_id = c.scope;
            address = reinterpret_cast<sockaddr*>(&ipv6);
            length = sizeof(ipv6);
        }
        const TEXT_RESULT printed = Print(address, length);
        EXPECT_EQ(TEXT_UNITS(c.text), printed.text);
        EXPECT_EQ(TEXT_UNITS(c.text).size() + 1, printed.units);
        EXPECT_EQ(SOCKET_ERROR, Print(address, length, printed.units - 1).result);
        EXPECT_EQ(WSAEFAULT, WSAGetLastError());
        EXPECT_EQ(printed.units, Print(address, length, 0).units);
        EXPECT_EQ(printed.text, Print(address, length, printed.units).text);
        EXPECT_EQ(SOCKET_ERROR, Print(address, length - 1).result);
        EXPECT_EQ(WSAEFAULT, WSAGetLastError());
    }
    sockaddr_storage other{};
    other.ss_family = AF_UNIX;
    EXPECT_EQ(SOCKET_ERROR, Print(reinterpret_cast<sockaddr*>(&other), sizeof(other)).result);
    EXPECT_EQ(WSAEINVAL, WSAGetLastError());
}

}  // namespace
