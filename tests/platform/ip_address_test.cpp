#include "platform/ip_address.h"

#include <gmock/gmock.h>

#include "platform/host_names.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"

WRAP_CALL(int, WSAStringToAddressW, (LPWSTR t, INT f, LPWSAPROTOCOL_INFOW p, LPSOCKADDR a, int* n), (t, f, p, a, n))
WRAP_CALL(int, WSAAddressToStringW, (LPSOCKADDR a, DWORD b, LPWSAPROTOCOL_INFOW p, LPWSTR t, LPDWORD n),
          (a, b, p, t, n))

static std::vector<const char*> LocalAddresses;  // what getaddrinfo gives

extern "C" {
int __real_win32_getaddrinfo(const char* node, const char* service, const ADDRINFOA* hints, PADDRINFOA* list);
int __wrap_win32_getaddrinfo(const char*, const char* service, const ADDRINFOA*, PADDRINFOA* list) {
    ADDRINFOA numeric{};
    numeric.ai_flags = AI_NUMERICHOST;
    numeric.ai_socktype = SOCK_STREAM;
    for (const char* each : LocalAddresses) {
        if (__real_win32_getaddrinfo(each, service, &numeric, list) != 0) std::abort();
        list = &(*list)->ai_next;
    }
    WSASetLastError(WSAHOST_NOT_FOUND);
    return LocalAddresses.empty() ? WSAHOST_NOT_FOUND : 0;
}
}

namespace keldwick {
namespace {

using testing::StartsWith;

constexpr auto SocketError = static_cast<uintptr_t>(SOCKET_ERROR);

TEST(IpAddress, TextsAndWhatTheyMean) {
    const struct {
        const WCHAR* text;
        BYTE version;  // 0: no address
        bool loopback;
        const char* bytes;  // in hexadecimal
    } cases[] = {
        {TEXT("10.0.0.5"), 4, false, "0A000005"},
        {TEXT("127.0.0.1"), 4, true, "7F000001"},
        {TEXT("127.0.0.2"), 4, false, "7F000002"},
        {TEXT("::1"), 6, true, "00000000000000000000000000000001"},
        {TEXT("fe80::1"), 6, false, "FE800000000000000000000000000001"},
        {TEXT("::ffff:10.0.0.5"), 6, false, "00000000000000000000FFFF0A000005"},
        {TEXT("-"), 0, false, ""},
        {TEXT(""), 0, false, ""},
        {TEXT("10.0.0.256"), 0, false, ""},
        {TEXT("::g"), 0, false, ""},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(Narrow(c.text));
        IP_ADDRESS address;
        EXPECT_EQ(c.version != 0, ParseAddress(address, c.text));
        EXPECT_EQ(c.version, AddressVersion(address));
        EXPECT_EQ(c.version == 6 ? 16u : c.version, AddressLength(address));
        EXPECT_EQ(c.loopback, IsLoopback(address));
        EXPECT_EQ(c.version == 0, AddressBytes(address) == nullptr);
        STRING hex;
        hex.HexText(AddressBytes(address), AddressLength(address), false, 0, ' ');
        EXPECT_EQ(c.bytes, Narrow(hex));
        if (c.version == 0) continue;
        STRING text;
        EXPECT_TRUE(AddressToText(address.SocketAddress(), address.SocketAddressLength(), text));
        EXPECT_EQ(Narrow(c.text), Narrow(text));
    }
    EXPECT_EQ(nullptr, AddressBytes(IP_ADDRESS(AF_INET))) << "a family without an address";
}

TEST(IpAddress, WhereAnAreaIsTooSmallABufferIsTried) {
    HEAP_BUFFER address;
    const FAIL_CALL smallAddress(WSAStringToAddressW_calls, SocketError, WSAEFAULT, 0, 1);
    ASSERT_TRUE(TextToAddress(TEXT("10.0.0.5"), AF_INET, address));
    EXPECT_EQ(AF_INET, address.As<SOCKADDR>()->sa_family);
    const FAIL_CALL smallText(WSAAddressToStringW_calls, SocketError, WSAEFAULT, 0, 1);
    STRING text;
    EXPECT_TRUE(AddressToText(address.As<SOCKADDR>(), address.Size(), text));
    EXPECT_EQ("10.0.0.5", Narrow(text.Text()));
}

TEST(IpAddress, AnAddressThatCannotBePrintedIsDumpedUpToSixteenBytes) {
    const DEBUG_LINES lines;
    BYTE bytes[28] = {0xFF, 0x7F, 0xAB};
    STRING text(TEXT("old"));
    EXPECT_FALSE(AddressToText(reinterpret_cast<const SOCKADDR*>(bytes), sizeof(bytes), text));
    EXPECT_THAT(lines.Last(),
                StartsWith("Unable to convert address = [FF 7F AB 00 00 00 00 00 00 00 00 00 00 00 00 00],\n"
                           "    Length = 28, Family = 32767 to a string.\n    "));
}

class LocalHost : public ::testing::Test {
protected:
    ~LocalHost() override {
        LocalAddresses.clear();
        LocalHostInfo = {};
    }
    DEBUG_LINES lines;
};

TEST_F(LocalHost, TheFirstAddressOfEachFamilyButTheLoopbackWins) {
    LocalAddresses = {"127.0.0.1", "::1", "fe80::7", "192.0.2.9", "2001:db8::1", "10.1.1.1"};
    LoadLocalHostInfo();
    EXPECT_EQ("192.0.2.9 fe80::7", Narrow(LocalHostInfo.ipV4) + " " + Narrow(LocalHostInfo.ipV6));
    const std::string host = Narrow(LocalHostInfo.hostName);
    EXPECT_EQ("HostName = \"" + host + "\",\n    HostIpV4 = 192.0.2.9,\n    HostIpV6 = fe80::7", lines.Last());
}

TEST_F(LocalHost, TheAddressOfTheOtherFamilyServesWhenThereIsNoneOfTheWanted) {
    const auto local = [](WORD wanted, const WCHAR* v4, const WCHAR* v6) {
        LocalHostInfo.ipV4.Assign(v4);
        LocalHostInfo.ipV6.Assign(v6);
        IP_ADDRESS address(wanted);
        const STRING* text = nullptr;
        const bool found = GetLocalAddress(address, &text);
        return std::tuple(found, address.family, text != nullptr ? Narrow(*text) : "");
    };
    const std::tuple<bool, WORD, std::string> v4(true, AF_INET, "10.0.0.1"), v6(true, AF_INET6, "fe80::1");
    EXPECT_EQ(v4, local(AF_INET, u"10.0.0.1", u"fe80::1"));
    EXPECT_EQ(v6, local(AF_INET, u"", u"fe80::1"));
    EXPECT_EQ(v6, local(AF_INET6, u"10.0.0.1", u"fe80::1"));
    EXPECT_EQ(v4, local(AF_INET6, u"10.0.0.1", u""));
    EXPECT_EQ(std::tuple(false, AF_INET, ""), local(AF_INET, u"", u""));
    EXPECT_EQ(std::tuple(false, 77, ""), local(77, u"10.0.0.1", u"fe80::1"));
    EXPECT_EQ(std::tuple(true, 0, "no address"), local(AF_INET, u"no address", u""));
}

}  // namespace
}  // namespace keldwick
