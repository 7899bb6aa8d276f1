#include "platform/ip_address.h"

#include <gtest/gtest.h>

#include <thread>

#include "platform/handles.h"
#include "platform/host_names.h"
#include "tests/support/wrapped_calls.h"

namespace keldwick {
namespace {

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
        {TEXT("10.0.0.5 "), 0, false, ""},
        {TEXT("10.0.0.08"), 0, false, ""},
        {TEXT("4294967296"), 0, false, ""},
        {TEXT("::g"), 0, false, ""},
        {TEXT("1::2::3"), 0, false, ""},
        {TEXT("[::1"), 0, false, ""},
        {TEXT("fe80::1%eth0"), 0, false, ""},
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
}

TEST(LocalHost, TheFirstAddressOfEachFamilyButTheLoopbackWins) {
    const DEBUG_LINES lines;
    NameServer().addresses[""] = {"127.0.0.1", "::1", "fe80::7", "192.0.2.9", "2001:db8::1", "10.1.1.1"};
    LoadLocalHostInfo();
    NameServer().addresses.erase("");
    EXPECT_EQ("192.0.2.9 fe80::7", Narrow(LocalHostInfo.ipV4) + " " + Narrow(LocalHostInfo.ipV6));
    LocalHostInfo = {};
}

TEST(NameLookup, AStopEndsTheWaitAndNothingIsAskedAfterIt) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    IP_ADDRESS address;
    ASSERT_TRUE(ParseAddress(address, TEXT("10.0.0.5")));
    STRING name(TEXT("kept"));
    NameServer().Die();
    std::thread stopper([&] {
        NameServer().AwaitQuestions(1);
        SetEvent(stop.Get());
    });
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(LookupHostName(address.SocketAddress(), address.SocketAddressLength(), name, stop.Get()));
        EXPECT_EQ(ERROR_CANCELLED, GetLastError());
    }
    EXPECT_EQ("kept", Narrow(name));
    EXPECT_EQ(1, NameServer().questions);
    stopper.join();
    NameServer().Revive(1);
}

}  // namespace
}  // namespace keldwick
