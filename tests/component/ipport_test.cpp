// The client over plain TCP.
#include <memory>
#include <thread>

#include "recorder.h"
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
        return listening.Accept();
    }
};

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
                 {"127.0.0.1", 65536, WSAEINVAL}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::string(c.host) + " " + std::to_string(c.port));
        CLIENT client;
        client.Connect(c.host, c.port);
        EXPECT_TRUE(client.events.empty()) << "events come from ProcessEvents";
        ASSERT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(c.status, "Connected"), client.events);
        EXPECT_TRUE(client.Idle());
    }
}

TEST(PlainConnection, ACloseAfterAFloodIsSeenBeforeASend) {
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

TEST(PlainConnection, ASendWaitsForRoomAndForNothingElse) {
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
    }
}

TEST(PlainConnection, ASilentAddressLeavesTimeForTheNext) {
    const LISTENING silent("127.0.0.2", 0, 0);
    const LISTENING good("127.0.0.1", silent.Port());
    std::vector<std::unique_ptr<CLIENT>> fillers;  // until the kernel drops what else arrives at the silent one
    for (int i = 0; i < 2; ++i) {
        fillers.push_back(std::make_unique<CLIENT>());
        fillers.back()->Connect("127.0.0.2", silent.Port());
    }
    NameServer().addresses["several.example"] = {"127.0.0.3", "127.0.0.2", "127.0.0.1"};  // refused, silent, good
    CLIENT client;
    client.SetTimeout(3);
    const ULONGLONG begin = GetTickCount64();
    ASSERT_TRUE(client.Opens(good.Port(), "several.example"));
    EXPECT_LT(GetTickCount64() - begin, 2800u) << "of the time-out only half is the silent one's";
    EXPECT_EQ(Open, client.events);
}

TEST(PlainConnection, AHangingNameServerHoldsUpNothingAndIsBounded) {
    constexpr int threads = 16;
    NameServer().Die();
    {
        CLIENT client;
        client.SetTimeout(1);
        for (int i = 0; i < threads; ++i) EXPECT_EQ(0, client.Connect("hang.example", 1306));
        EXPECT_EQ(WSATRY_AGAIN, client.Connect("hang.example", 1306)) << "no more threads";
        EXPECT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(WSATRY_AGAIN, "Connected"), client.events);
        const LISTENING listening;
        EXPECT_TRUE(client.Opens(listening.Port())) << "an address needs no name server";
    }  // the client goes while its look-ups hang
    NameServer().Revive(threads);
}

}  // namespace
