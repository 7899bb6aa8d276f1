// The client over TLS.
#include <atomic>
#include <future>
#include <thread>

#include "either_client.h"
#include "recorder.h"
#include "tests/support/tls_peer.h"

namespace {

using namespace keldwick;

class CLIENT : public EVENT_RECORDER<EITHER_CLIENT> {
public:
    int FireSSLServerAuthentication(const BYTE*, int, const char*, const char*, const char*, int* accept) override {
        *accept = 1;
        return 0;
    }
};

TEST(SecureConnection, LargeMessagesGoThroughWhole) {
    const std::string large(3 << 20, 'x');
    PLAYED server([&](SSL* session, ACCEPTED& peer) {
        const std::string heard = Hear(session, large.size());
        peer.Say(Records(session, [&] { Say(session, heard); }));
        Hear(session, 1);
    });
    CLIENT client;
    ASSERT_TRUE(client.Opens(server.Port()));
    EXPECT_EQ(0, client.SendText(large));
    EXPECT_TRUE(client.AwaitBytes(large.size()));
    EXPECT_TRUE(client.received == large);
    EXPECT_TRUE(client.Idle());
}

TEST(SecureConnection, ARenegotiationIsDeclinedAndTheConnectionGoesOn) {
    static std::atomic<int> renegotiated;
    renegotiated = 0;
    {
        PLAYED server([](SSL* session, ACCEPTED&) {
            AskForHandshakes(session, 1);
            SSL_set_info_callback(session, [](const SSL*, int where, int) {
                if (where & SSL_CB_HANDSHAKE_START) ++renegotiated;
            });
            Say(session, Hear(session, 7));
            Hear(session, 1);
        });
        CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        EXPECT_EQ(0, client.SendText("request"));
        EXPECT_TRUE(client.AwaitBytes(7));
        client.Disconnect();
        EXPECT_EQ(Open + EVENTS{"DataIn"} + Ended(0), client.events);
    }
    EXPECT_EQ(0, renegotiated);
}

TEST(SecureConnection, AFloodAfterTheHandshakeIsReadInTurns) {
    size_t size = 0, turns = 0;
    {
        PLAYED server([&](SSL* session, ACCEPTED& peer) {
            const std::string flood = Records(session, [&] {
                AskForHandshakes(session, 20'000);
                Say(session, "end");
            });
            size = flood.size();
            peer.Hear(1);
            EXPECT_TRUE(Pour(peer, flood));
            peer.Hear(1 << 20);
        });
        CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        EXPECT_EQ(0, client.SendText("go"));
        for (; client.received.empty() && turns < 100'000; ++turns) {
            client.Signalled(std::min<DWORD>(client.WaitLimit(), 15'000));
            client.ProcessEvents();
        }
        EXPECT_EQ("end", client.received);
    }
    EXPECT_GE(turns, size >> 16);
}

TEST(SecureConnection, AGoodbyeAfterAFloodIsSeenBeforeASend) {
    std::promise<void> poured;
    std::string heardAfterwards;
    {
        PLAYED server([&](SSL* session, ACCEPTED& peer) {
            peer.Say(Records(session, [&] {
                AskForHandshakes(session, 1500);
                SSL_shutdown(session);
            }));
            poured.set_value();
            heardAfterwards = peer.Hear(1 << 20);
        });
        CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        poured.get_future().wait();
        EXPECT_EQ(WSAECONNRESET, client.SendText("request"));
        EXPECT_EQ(Open + Ended(0), client.events);
    }
    EXPECT_EQ(std::string::npos, heardAfterwards.find("\x17\x03\x03")) << "a record of data went out into the end";
}

TEST(SecureConnection, AServerIsNamedTheHostAndSentAGoodbye) {
    NameServer().addresses["one.example"] = {"127.0.0.1"};
    for (const bool byName : {true, false}) {
        std::string named;
        bool saidGoodbye = false;
        {
            PLAYED server([&](SSL* session, ACCEPTED&) {
                const char* name = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
                if (name != nullptr) named = name;
                Hear(session, 1);
                saidGoodbye = (SSL_get_shutdown(session) & SSL_RECEIVED_SHUTDOWN) != 0;
            });
            CLIENT client;
            ASSERT_TRUE(client.Opens(server.Port(), byName ? "one.example" : "127.0.0.1"));
        }
        EXPECT_TRUE(saidGoodbye);
        EXPECT_EQ(byName ? "one.example" : "", named) << "an address is no name";
    }
}

}  // namespace
