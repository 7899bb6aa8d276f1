// The client over plain TCP.
#include <gtest/gtest.h>

#include <fstream>
#include <memory>
#include <thread>

#include "names.h"
#include "recorder.h"
#include "tests/support/network_quiet.h"
#include "tests/support/owned_handle.h"
#include "tests/support/peer.h"

namespace {

using namespace keldwick;

class PLAIN_CLIENT : public IPPort {
public:
    bool Signalled(DWORD milliseconds) { return WaitForSingleObject(EventHandle(), milliseconds) == WAIT_OBJECT_0; }
};
using CLIENT = EVENT_RECORDER<PLAIN_CLIENT>;

// A client connected to a peer.
struct CONNECTED {
    LISTENING listening;
    CLIENT client;
    ACCEPTED peer;

    CONNECTED() : peer(Establish()) {}

private:
    ACCEPTED Establish() {
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
    pair.peer.Say("stale");
    pair.client.events.clear();
    ASSERT_TRUE(pair.client.Opens(pair.listening.Port()));
    EXPECT_EQ(Open, pair.client.events) << "a new attempt drops the old connection without a word";
    EXPECT_EQ("", pair.peer.Hear(1));
    pair.client.Disconnect();
    pair.client.Disconnect();
    EXPECT_EQ(Open + Ended(0), pair.client.events);
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

TEST(PlainConnection, ACloseIsSeenAfterTheBytesBeforeIt) {
    const std::string readAtOnce(16384, 'x');
    for (const std::string& last : {std::string(), std::string("half an ans"), readAtOnce})
        for (const bool resets : {false, true})
            for (const bool bySend : {false, true}) {
                SCOPED_TRACE(std::to_string(last.size()) + (resets ? " reset" : " closed") +
                             (bySend ? ", met by a send" : ", waited for"));
                CONNECTED pair;
                if (!last.empty()) pair.peer.Say(last);
                resets ? pair.peer.Reset() : pair.peer.Close();
                if (bySend) {
                    EXPECT_EQ(last.empty() ? WSAENOTCONN : WSAECONNRESET, pair.client.SendText("request"));
                    EXPECT_NE("", std::string(pair.client.LastErrorText()));
                } else if (!last.empty()) {
                    ASSERT_TRUE(pair.client.AwaitBytes(last.size()));
                    EXPECT_FALSE(pair.client.Seen("Disconnected")) << "no time to take the bytes";
                }
                ASSERT_TRUE(pair.client.Await("Disconnected"));
                EXPECT_EQ(last, pair.client.received);
                EXPECT_TRUE(pair.client.Idle());
                pair.client.ProcessEvents();  // it is said once
                EXPECT_EQ(Open + (last.empty() ? EVENTS{} : EVENTS{"DataIn"}) + Ended(resets ? WSAECONNRESET : 0),
                          pair.client.events);
            }
}

TEST(PlainConnection, ACloseAfterMoreThanIsReadAtOnceIsSeenBeforeASend) {
    constexpr size_t readInOneTurn = 256 << 10;
    CONNECTED pair;
    const std::string garbage(8 << 20, 'x');
    const ssize_t taken = send(pair.peer.Get(), garbage.data(), garbage.size(), MSG_DONTWAIT);
    ASSERT_GT(taken, static_cast<ssize_t>(readInOneTurn)) << "the kernel takes less than shows anything";
    pair.peer.Close();
    EXPECT_EQ(WSAECONNRESET, pair.client.SendText("request"));
    EXPECT_EQ("Disconnected 0", pair.client.events.back());
    EXPECT_EQ(static_cast<size_t>(taken), pair.client.received.size());
}

TEST(PlainConnection, ASendWaitsForRoomUntilItsTimeIsUpItIsCalledOffOrThePeerGoes) {
    const std::string large(32 << 20, 'x');
    for (const int code : {0, WSAETIMEDOUT, WSAECANCELLED, WSAECONNRESET}) {
        SCOPED_TRACE(code);
        const OWNED_HANDLE cancel(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        CONNECTED pair;
        pair.client.SetCancelEvent(cancel);
        if (code == WSAETIMEDOUT) pair.client.SetTimeout(1);
        size_t heard = 0;
        std::thread peer([&] {
            heard = pair.peer.Hear(code == 0 ? large.size() : 1).size();
            if (code == WSAECANCELLED) SetEvent(cancel);
            if (code == WSAECONNRESET) pair.peer.Reset();
        });
        EXPECT_EQ(code, pair.client.SendText(large));
        peer.join();
        EXPECT_EQ(code == 0 ? large.size() : 1, heard);
        EXPECT_EQ(Open + (code == 0 ? EVENTS{} : Ended(code)), pair.client.events);
        if (code != WSAECANCELLED) continue;
        ASSERT_TRUE(pair.client.Opens(pair.listening.Port()));
        EXPECT_EQ(0, pair.client.SendText("x")) << "one that needs no room goes out";
    }
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
    client.SetTimeout(3);
    const ULONGLONG begin = GetTickCount64();
    ASSERT_TRUE(client.Opens(good.Port(), "several.example")) << testing::PrintToString(client.texts);
    EXPECT_LT(GetTickCount64() - begin, 2800u) << "of the time-out only half is the silent one's";
    EXPECT_EQ(Open, client.events);
    const ACCEPTED peer = good.Accept();
    EXPECT_EQ(0, client.SendText("x"));
    EXPECT_EQ("x", peer.Hear(1));

    knownNames["several.example"] = {"127.0.0.3", "127.0.0.4"};
    CLIENT other;
    other.Connect("several.example", good.Port());
    ASSERT_TRUE(other.Await("Connected"));
    EXPECT_EQ(Ended(WSAECONNREFUSED, "Connected"), other.events);
}

TEST(PlainConnection, APeerThatVanishedIsGivenUpInTimeAndAnAttemptNotEarly) {
    const LISTENING silent("127.0.0.2", 0, 0);
    CLIENT filler, client;
    filler.Opens(silent.Port(), "127.0.0.2");
    client.Connect("127.0.0.2", silent.Port());
    std::map<int, int> limits;  // by state
    for (const TCP_END& end : OpenTcpEnds()) {
        socklen_t length = sizeof(int);
        getsockopt(end.descriptor, IPPROTO_TCP, TCP_USER_TIMEOUT, &limits[end.state], &length);
    }
    EXPECT_EQ((std::map<int, int>{{TCP_ESTABLISHED, 17'000}, {TCP_SYN_SENT, 0}}), limits);
}

TEST(PlainConnection, ReachesIpv6Addresses) {
    if (std::ifstream("/proc/net/if_inet6").peek() == EOF) GTEST_SKIP() << "this machine has no IPv6";
    const LISTENING listening("::1");
    for (const char* host : {"::1", "[::1]", "0:0:0:0:0:0:0:1"}) {
        CLIENT client;
        ASSERT_TRUE(client.Opens(listening.Port(), host)) << host << testing::PrintToString(client.texts);
        listening.Accept().Say("x");
        EXPECT_TRUE(client.AwaitBytes(1));
    }
}

TEST(PlainConnection, AHangingNameServerHoldsUpNothingAndIsBounded) {
    constexpr int threads = 16;
    {
        CLIENT client;
        const auto endsInTryAgain = [&] {
            client.events.clear();
            return client.Await("Connected") && client.events == Ended(WSATRY_AGAIN, "Connected");
        };
        client.SetTimeout(1);
        EXPECT_EQ(0, client.Connect("hang.example", 1306));
        EXPECT_TRUE(endsInTryAgain());
        for (int i = 1; i < threads; ++i) EXPECT_EQ(0, client.Connect("hang.example", 1306));
        EXPECT_EQ(WSATRY_AGAIN, client.Connect("hang.example", 1306)) << "no more threads";
        EXPECT_TRUE(endsInTryAgain());
        const LISTENING listening;
        ASSERT_TRUE(client.Opens(listening.Port())) << "an address needs no name server";
    }  // the client goes while its look-ups hang
    ReviveNameServer(threads);
}

}  // namespace
