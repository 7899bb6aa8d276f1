#include "component/ipports.h"

#include <gtest/gtest.h>
#include <netinet/tcp.h>

#include <fstream>
#include <memory>
#include <thread>

#include "names.h"
#include "recorder.h"
#include "tests/support/owned_handle.h"
#include "tests/support/peer.h"

namespace {

using namespace keldwick;
using CLIENT = EVENT_RECORDER<IPPort>;

// A client connected to a peer.
struct CONNECTED {
    LISTENING listening;
    CLIENT client;
    ACCEPTED peer;

    CONNECTED() : peer(Establish()) {}

private:
    ACCEPTED Establish() {
        client.SetTimeout(20);
        EXPECT_TRUE(client.Opens(listening.Port()));
        EXPECT_EQ(Open, client.events);
        return listening.Accept();
    }
};

TEST(PlainConnection, CarriesBytesBothWaysAndIsQuietInBetween) {
    CONNECTED pair;
    EXPECT_EQ(0, pair.client.SendText("request"));
    EXPECT_EQ("request", pair.peer.Hear(7));
    EXPECT_TRUE(pair.client.Idle());
    pair.peer.Say("answer");
    EXPECT_TRUE(pair.client.AwaitBytes(6));
    EXPECT_EQ("answer", pair.client.received);
    EXPECT_TRUE(pair.client.Idle());
    pair.client.Disconnect();
    pair.client.Disconnect();
    EXPECT_EQ(Open + EVENTS({"DataIn", "Disconnected 0"}), pair.client.events);
    EXPECT_EQ("", pair.peer.Hear(1)) << "the peer sees the close";
    EXPECT_EQ(WSAENOTCONN, pair.client.SendText("x"));
    EXPECT_STREQ("Not connected.", pair.client.LastErrorText());
}

TEST(PlainConnection, AttemptsThatCannotSucceedEndInOneEvent) {
    LISTENING closed;
    const int port = closed.Port();
    closed.Close();
    const struct {
        const char* host;
        int port, status;
    } cases[] = {{"127.0.0.1", port, WSAECONNREFUSED},
                 {"[127.0.0.1]", port, WSAECONNREFUSED},
                 {"nobody.example", port, WSAHOST_NOT_FOUND},
                 {"", port, WSAEINVAL},
                 {nullptr, port, WSAEINVAL},
                 {"127.0.0.1", 0, WSAEINVAL},
                 {"127.0.0.1", 65536, WSAEINVAL}};
    CLIENT client;
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.host != nullptr ? c.host : "null") + " " + std::to_string(c.port));
        client.events.clear();
        client.texts.clear();
        client.Connect(c.host, c.port);
        EXPECT_TRUE(client.events.empty()) << "events come from ProcessEvents";
        ASSERT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(c.status, "Connected"), client.events);
        EXPECT_EQ(client.texts.front(), client.LastErrorText());
        EXPECT_EQ('.', client.texts.front().back());
        EXPECT_TRUE(client.Idle());
    }
}

TEST(PlainConnection, ACloseIsMetBySendersAndWaitersAfterTheBytesBeforeIt) {
    for (const std::string last : {"", "half an ans"})
        for (const bool reset : {false, true})
            for (const bool bySend : {false, true}) {
                SCOPED_TRACE(last + (reset ? " reset" : " closed") + (bySend ? ", met by a send" : ", waited for"));
                CONNECTED pair;
                if (!last.empty()) pair.peer.Say(last);
                reset ? pair.peer.Reset() : pair.peer.Close();
                if (bySend) {
                    EXPECT_EQ(last.empty() ? WSAENOTCONN : WSAECONNRESET, pair.client.SendText("request"));
                    EXPECT_NE("", std::string(pair.client.LastErrorText()));
                }
                ASSERT_TRUE(pair.client.Await("Disconnected"));
                EXPECT_EQ(last, pair.client.received);
                EXPECT_TRUE(pair.client.Idle());
                pair.client.ProcessEvents();  // it is said once
                EXPECT_EQ(Open + (last.empty() ? EVENTS{} : EVENTS{"DataIn"}) + Ended(reset ? WSAECONNRESET : 0),
                          pair.client.events);
            }
}

TEST(PlainConnection, ACloseBehindAFullBufferLeavesTimeToTakeTheBytes) {
    constexpr size_t readAtOnce = 16384;
    for (const bool bySend : {false, true}) {
        CONNECTED pair;
        pair.peer.Say(std::string(readAtOnce, 'x'));
        pair.peer.Close();
        ASSERT_TRUE(pair.client.AwaitBytes(readAtOnce));
        EXPECT_FALSE(pair.client.Seen("Disconnected"));
        EXPECT_TRUE(bySend ? pair.client.SendText("request") == WSAENOTCONN : pair.client.Await("Disconnected"));
        EXPECT_EQ("Disconnected 0", pair.client.events.back());
        EXPECT_EQ(readAtOnce, pair.client.received.size());
        EXPECT_TRUE(pair.client.Idle());
    }
}

TEST(PlainConnection, ACloseBehindMoreThanIsReadAtOnceIsSeenBeforeASend) {
    constexpr size_t readInOneTurn = 256 << 10;
    CONNECTED pair;
    const std::string garbage(8 << 20, 'x');
    const ssize_t taken = send(pair.peer.Get(), garbage.data(), garbage.size(), MSG_DONTWAIT | MSG_NOSIGNAL);
    ASSERT_GT(taken, static_cast<ssize_t>(readInOneTurn)) << "the kernel takes less than shows anything";
    pair.peer.Close();
    EXPECT_EQ(WSAECONNRESET, pair.client.SendText("request"));
    EXPECT_EQ("Disconnected 0", pair.client.events.back());
    EXPECT_EQ(static_cast<size_t>(taken), pair.client.received.size());
}

TEST(PlainConnection, ASendThatFindsNoRoomWithinTheTimeOutEndsTheConnection) {
    CONNECTED pair;
    pair.client.SetTimeout(1);
    EXPECT_EQ(WSAETIMEDOUT, pair.client.SendText(std::string(64 << 20, 'x')));
    EXPECT_EQ(Open + Ended(WSAETIMEDOUT), pair.client.events);
    EXPECT_EQ(WSAENOTCONN, pair.client.SendText("x"));
}

TEST(PlainConnection, ASendThatWaitsForRoomCanBeCalledOff) {
    const OWNED_HANDLE cancel(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    CONNECTED pair;
    pair.client.SetCancelEvent(cancel);
    std::thread canceller([&] {
        pair.peer.Hear(1);
        SetEvent(cancel);
    });
    EXPECT_EQ(WSAECANCELLED, pair.client.SendText(std::string(64 << 20, 'x')));
    canceller.join();
    EXPECT_EQ(Open + Ended(WSAECANCELLED), pair.client.events);

    CONNECTED another;
    another.client.SetCancelEvent(cancel);
    EXPECT_EQ(0, another.client.SendText("x"));
    EXPECT_EQ("x", another.peer.Hear(1));
}

TEST(PlainConnection, ASendLargerThanTheBuffersWaitsForThePeerToRead) {
    CONNECTED pair;
    const std::string large(32 << 20, 'x');
    std::string heard;
    std::thread reader([&] { heard = pair.peer.Hear(large.size()); });
    EXPECT_EQ(0, pair.client.SendText(large));
    reader.join();
    EXPECT_TRUE(heard == large);
}

TEST(PlainConnection, AFloodOfBytesIsDeliveredInTurns) {
    CONNECTED pair;
    constexpr size_t said = 64 << 20;
    std::thread writer([&] { pair.peer.Say(std::string(said, 'x')); });
    while (pair.client.received.size() < said && !HasFailure()) {
        const size_t before = pair.client.received.size();
        pair.client.Turn();
        EXPECT_LE(pair.client.received.size() - before, 256u << 10);
    }
    writer.join();
    EXPECT_EQ(said, pair.client.received.size());
    EXPECT_TRUE(pair.client.Idle());
}

TEST(PlainConnection, APeerThatResetsWhileItIsSentToIsAnErrorAndNoSignal) {
    CONNECTED pair;
    std::thread resetter([&] {
        pair.peer.Hear(1);
        pair.peer.Reset();
    });
    EXPECT_EQ(WSAECONNRESET, pair.client.SendText(std::string(64 << 20, 'x')));
    resetter.join();
    EXPECT_EQ(Open + Ended(WSAECONNRESET), pair.client.events);
}

TEST(PlainConnection, EveryAddressOfANameIsTriedAndASilentOneLeavesTimeForTheNext) {
    const LISTENING silent("127.0.0.2", 0, 0);
    const LISTENING good("127.0.0.1", silent.Port());
    std::vector<std::unique_ptr<CLIENT>> fillers;  // until the kernel drops what else arrives at the silent one
    for (int i = 0; i < 2; ++i) {
        fillers.push_back(std::make_unique<CLIENT>());
        fillers.back()->Connect("127.0.0.2", silent.Port());
    }
    knownNames["several.example"] = {"127.0.0.3", "127.0.0.2", "127.0.0.1"};  // refused, silent, good
    CLIENT client;
    client.SetTimeout(2);
    ASSERT_TRUE(client.Opens(good.Port(), "several.example")) << testing::PrintToString(client.texts);
    EXPECT_EQ(Open, client.events);
    ACCEPTED peer = good.Accept();
    EXPECT_EQ(0, client.SendText("x"));
    EXPECT_EQ("x", peer.Hear(1));

    knownNames["several.example"] = {"127.0.0.3", "127.0.0.4"};
    CLIENT other;
    other.Connect("several.example", good.Port());
    ASSERT_TRUE(other.Await("Connected"));
    EXPECT_EQ(Ended(WSAECONNREFUSED, "Connected"), other.events);
}

// An option of the one socket of this process that is in that state; -1 without one.
int OptionOfSocketIn(int state, int level, int name) {
    for (int descriptor = 3; descriptor < 1024; ++descriptor) {
        tcp_info info{};
        socklen_t length = sizeof(info);
        if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_state != state) continue;
        int value = -1;
        length = sizeof(value);
        getsockopt(descriptor, level, name, &value, &length);
        return value;
    }
    return -1;
}

TEST(PlainConnection, APeerThatVanishedIsGivenUpInTimeAndAnAttemptNotEarly) {
    const LISTENING silent("127.0.0.2", 0, 0);
    CLIENT filler, client;
    filler.Opens(silent.Port(), "127.0.0.2");
    const auto option = [](int name) { return OptionOfSocketIn(TCP_ESTABLISHED, IPPROTO_TCP, name); };
    EXPECT_EQ(17'000, option(TCP_USER_TIMEOUT));
    EXPECT_EQ(6, option(TCP_KEEPIDLE));
    EXPECT_EQ(4, option(TCP_KEEPINTVL));
    EXPECT_EQ(3, option(TCP_KEEPCNT));
    EXPECT_EQ(1, option(TCP_NODELAY));
    EXPECT_EQ(1, OptionOfSocketIn(TCP_ESTABLISHED, SOL_SOCKET, SO_KEEPALIVE));
    client.Connect("127.0.0.2", silent.Port());
    EXPECT_EQ(0, OptionOfSocketIn(TCP_SYN_SENT, IPPROTO_TCP, TCP_USER_TIMEOUT));
}

TEST(PlainConnection, ReachesIpv6Addresses) {
    if (std::ifstream("/proc/net/if_inet6").peek() == EOF) GTEST_SKIP() << "this machine has no IPv6";
    LISTENING listening("::1");
    for (const char* host : {"::1", "[::1]", "0:0:0:0:0:0:0:1"}) {
        CLIENT client;
        ASSERT_TRUE(client.Opens(listening.Port(), host)) << host << testing::PrintToString(client.texts);
        listening.Accept().Say("x");
        EXPECT_TRUE(client.AwaitBytes(1));
    }
}

constexpr int MaxLookups = 16;

TEST(PlainConnection, AHangingNameServerHoldsUpNobodyAndIsBounded) {
    {
        CLIENT client;
        client.SetTimeout(1);
        EXPECT_EQ(0, client.Connect("hang.example", 1306));
        client.ProcessEvents();
        EXPECT_TRUE(client.events.empty());
        ASSERT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(WSATRY_AGAIN, "Connected"), client.events);
        for (int i = 1; i < MaxLookups; ++i) {
            EXPECT_EQ(0, client.Connect("hang.example", 1306));
            client.Disconnect();
        }
        EXPECT_EQ(WSATRY_AGAIN, client.Connect("hang.example", 1306)) << "no more threads";
        client.events.clear();
        ASSERT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(WSATRY_AGAIN, "Connected"), client.events);
        LISTENING listening;
        client.events.clear();
        ASSERT_TRUE(client.Opens(listening.Port())) << "an address needs no name server";
    }  // the client goes while its look-ups hang
    ReviveNameServer(MaxLookups);
    EXPECT_EQ(0, HangingLookups());
}

TEST(PlainConnection, ANewAttemptDropsTheOldConnectionWithoutAWord) {
    CONNECTED pair;
    pair.peer.Say("stale");
    pair.client.events.clear();
    ASSERT_TRUE(pair.client.Opens(pair.listening.Port()));
    EXPECT_EQ(Open, pair.client.events);
    EXPECT_EQ("", pair.client.received);
}

}  // namespace
