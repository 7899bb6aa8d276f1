// The client over TLS.
#include <atomic>
#include <future>
#include <thread>

#include "either_client.h"
#include "recorder.h"
#include "tests/support/tls_peer.h"

namespace {

using namespace keldwick;

class TLS_CLIENT : public EVENT_RECORDER<EITHER_CLIENT> {
public:
    bool acceptsAll = true;
    std::vector<std::string> authentications;  // "subject / issuer / status / accept"
    std::vector<BYTE> certificate;
    std::string status;  // SSLStatus messages

    int FireSSLServerAuthentication(const BYTE* bytes, int count, const char* subject, const char* issuer,
                                    const char* text, int* accept) override {
        certificate.assign(bytes, bytes + count);
        authentications.push_back(std::string(subject) + " / " + issuer + " / " + text + " / " +
                                  std::to_string(*accept));
        if (acceptsAll) *accept = 1;
        return 0;
    }
    int FireSSLStatus(const char* message) override {
        status += std::string(message) + "\n";
        return 0;
    }
};

// Echoes seven bytes, then waits for the client to go.
void Echo(SSL* session, ACCEPTED&) {
    Say(session, Hear(session, 7));
    Hear(session, 1);
}

TEST(SecureConnection, UsesTheEnabledVersionsAndNoOthers) {
    const struct {
        int protocols, lowest, highest;
        const char* spoken;  // null: no connection
    } cases[] = {{3840, TLS1_2_VERSION, TLS1_2_VERSION, "TLSv1.2"},
                 {3840, TLS1_1_VERSION, TLS1_1_VERSION, "TLSv1.1"},
                 {3840, TLS1_VERSION, TLS1_3_VERSION, "TLSv1.2"},
                 {3840, TLS1_VERSION, TLS1_VERSION, nullptr},
                 {3840, TLS1_3_VERSION, TLS1_3_VERSION, nullptr},
                 {128, TLS1_VERSION, TLS1_2_VERSION, "TLSv1"},
                 {256, TLS1_VERSION, TLS1_2_VERSION, "TLSv1.1"},
                 {12288, TLS1_VERSION, TLS1_3_VERSION, OTHER_SYSTEM::Get() ? nullptr : "TLSv1.3"}};  // wine has no 1.3
    for (const auto& c : cases) {
        const std::string setting = "SSLEnabledProtocols=" + std::to_string(c.protocols);
        SCOPED_TRACE(setting + " to " + std::to_string(c.lowest) + "-" + std::to_string(c.highest));
        PLAYED server(SERVER_KIND{c.lowest, c.highest}, Echo);
        TLS_CLIENT client;
        EXPECT_EQ(0, client.Config(setting.c_str()));
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await(c.spoken != nullptr ? "ReadyToSend" : "Connected"));
        EXPECT_EQ(c.spoken != nullptr ? Open : Ended(WSAECONNABORTED, "Connected"), client.events);
        if (c.spoken == nullptr) continue;
        EXPECT_NE(std::string::npos, client.status.find(std::string("done: ") + c.spoken + ",")) << client.status;
        EXPECT_EQ(0, client.SendText("request"));
        EXPECT_TRUE(client.AwaitBytes(7));
        EXPECT_EQ("request", client.received);
        EXPECT_TRUE(client.Idle());
        client.Disconnect();
        EXPECT_EQ(Open + EVENTS({"DataIn", "Disconnected 0"}), client.events);
    }
}

TEST(SecureConnection, SettingsThatAreNoneAreRefusedAndNoVersionIsNoConnection) {
    TLS_CLIENT client;
    for (const char* setting : {"", "SSLEnabledProtocols=", "SSLEnabledProtocols=1x", "SSLEnabledProtocols=99999999999",
                                "Other=1", static_cast<const char*>(nullptr)})
        EXPECT_EQ(WSAEINVAL, client.Config(setting));
    EXPECT_EQ(0, client.Config("SSLEnabledProtocols=0"));
    const LISTENING listening;
    client.Connect("127.0.0.1", listening.Port());
    ASSERT_TRUE(client.Await("Connected"));
    EXPECT_EQ(Ended(WSAECONNABORTED, "Connected"), client.events);
}

TEST(SecureConnection, TheOwnerDecidesAboutTheCertificate) {
    for (const bool accepts : {true, false}) {
        PLAYED server(SERVER_KIND{.validTo = accepts ? -3600 : 3600}, Echo);
        TLS_CLIENT client;
        client.acceptsAll = accepts;
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await(accepts ? "ReadyToSend" : "Disconnected"));
        EXPECT_EQ(accepts ? Open : EVENTS({"Error 280", "Disconnected 280"}), client.events);
        const std::string subject = "CN=identity.example / CN=identity.example / ";
        EXPECT_EQ(EVENTS{subject + (OTHER_SYSTEM::Get() ? "error 0x800b0109 / 0" : "self-signed certificate / 0")},
                  client.authentications);
        const BYTE* place = client.certificate.data();
        EXPECT_TRUE(CERTIFICATE(d2i_X509(nullptr, &place, static_cast<long>(client.certificate.size()))));
    }
}

TEST(SecureConnection, AHandshakeThatGoesWrongIsOneEvent) {
    static const std::string half("\x16\x03\x03\0\x50\x02", 6), alert("\x15\x03\x03\0\x02\x02\x28", 7);
    const struct {
        const char* name;
        int status;  // WSAECONNRESET: any, as closing with unread bytes is a reset to some kernels
        PLAYED::SCRIPT script;
    } cases[] = {{"garbage", WSAECONNABORTED,
                  [](ACCEPTED& peer) { peer.Say("HTTP/1.1 400 Bad Request\r\n\r\n"), peer.Hear(1); }},
                 {"alert", WSAECONNABORTED, [](ACCEPTED& peer) { peer.Say(alert), peer.Hear(1); }},
                 {"close", WSAECONNRESET, [](ACCEPTED& peer) { peer.Hear(100), peer.Say(half); }},
                 {"reset", WSAECONNRESET, [](ACCEPTED& peer) { peer.Hear(100), peer.Reset(); }},
                 {"silence", WSAETIMEDOUT, [](ACCEPTED& peer) { peer.Say(half), peer.Hear(1 << 20); }}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PLAYED server(c.script);
        TLS_CLIENT client;
        client.SetTimeout(1);
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await("Connected"));
        ASSERT_EQ(1u, client.events.size()) << testing::PrintToString(client.events);
        EXPECT_NE("Connected 0", client.events[0]);
        EXPECT_TRUE(c.status == WSAECONNRESET || client.events == Ended(c.status, "Connected")) << client.events[0];
        EXPECT_TRUE(client.Idle());
    }
}

TEST(SecureConnection, EveryKindOfEndIsSeenAfterTheBytesBeforeIt) {
    const struct {
        const char* name;
        PLAYED::TLS_SCRIPT script;  // after "bye"
        int status = 0;
    } cases[] = {
        {"goodbye", [](SSL* session, ACCEPTED&) { SSL_shutdown(session); }},
        {"goodbye that stays", [](SSL* session, ACCEPTED& peer) { SSL_shutdown(session), peer.Hear(1 << 20); }},
        {"cut off", [](SSL*, ACCEPTED& peer) { peer.Close(); }},
        {"cut off in a record", [](SSL*, ACCEPTED& peer) { peer.Say("\x17\x03\x03"); }},
        {"garbage", [](SSL*, ACCEPTED& peer) { peer.Say("garbage garbage"), peer.Hear(1 << 20); }, WSAECONNABORTED}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        PLAYED server(SERVER_KIND{},
                      [&](SSL* session, ACCEPTED& peer) { Say(session, "bye"), c.script(session, peer); });
        TLS_CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        ASSERT_TRUE(client.Await("Disconnected"));
        EXPECT_EQ(Ended(c.status), EVENTS{client.events.back()});
        EXPECT_EQ("bye", client.received);
        EXPECT_TRUE(client.Idle());
    }
}

TEST(SecureConnection, AnEndThatArrivesWithBytesLeavesTimeToTakeThem) {
    for (const bool clean : {true, false})
        for (const bool bySend : {false, true}) {
            SCOPED_TRACE(std::string(clean ? "goodbye" : "garbage") + (bySend ? ", met by a send" : ""));
            std::string heardAfterwards;
            const EVENTS end = Ended(clean ? 0 : WSAECONNABORTED);
            {
                PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
                    Hear(session, 7);
                    const auto talk = [&] {
                        Say(session, "answer");
                        if (clean) SSL_shutdown(session);
                    };
                    peer.Say(Records(session, talk) + (clean ? "" : "garbage garbage"));
                    heardAfterwards = peer.Hear(1 << 20);
                });
                TLS_CLIENT client;
                ASSERT_TRUE(client.Opens(server.Port()));
                EXPECT_EQ(0, client.SendText("request"));
                if (bySend) {
                    EXPECT_TRUE(client.Signalled(15'000));
                    EXPECT_EQ(clean ? WSAECONNRESET : WSAECONNABORTED, client.SendText("another"));
                } else {
                    EXPECT_EQ(EVENTS{"DataIn"}, client.Turn());
                    EXPECT_EQ(end, client.Turn());
                }
                EXPECT_EQ(Open + EVENTS{"DataIn"} + end, client.events);
                EXPECT_EQ("answer", client.received);
                EXPECT_TRUE(client.Idle());
            }
            EXPECT_FALSE(heardAfterwards.starts_with("\x17")) << "a record of data went out into the end";
        }
}

TEST(SecureConnection, LargeMessagesGoThroughWhole) {
    const std::string large(3 << 20, 'x');
    PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
        const std::string heard = Hear(session, large.size());
        peer.Say(Records(session, [&] { Say(session, heard); }));
        Hear(session, 1);
    });
    TLS_CLIENT client;
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
        PLAYED server(SERVER_KIND{}, [](SSL* session, ACCEPTED& peer) {
            SSL_renegotiate(session);
            SSL_do_handshake(session);  // sends the request for it
            SSL_set_info_callback(session, [](const SSL*, int where, int) {
                if (where & SSL_CB_HANDSHAKE_START) ++renegotiated;
            });
            Echo(session, peer);
        });
        TLS_CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        EXPECT_EQ(0, client.SendText("request"));
        EXPECT_TRUE(client.AwaitBytes(7)) << testing::PrintToString(client.texts);
        EXPECT_EQ("request", client.received);
    }
    EXPECT_EQ(0, renegotiated);
}

TEST(SecureConnection, AFloodAfterTheHandshakeIsReadInTurns) {
    constexpr int requests = 20'000;
    size_t size = 0;
    PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
        const std::string flood = Records(session, [&] {
            AskForHandshakes(session, requests);
            Say(session, "end");
        });
        size = flood.size();
        peer.Hear(1);
        EXPECT_TRUE(Pour(peer, flood));
        peer.Hear(1 << 20);
    });
    size_t turns = 0;
    {
        TLS_CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        EXPECT_EQ(0, client.SendText("go"));
        for (; client.received.empty() && !HasFailure(); ++turns) client.Turn();
        EXPECT_EQ("end", client.received);
        client.ProcessEvents();
        EXPECT_TRUE(client.Idle());
    }
    EXPECT_GE(turns, size >> 16);
}

TEST(SecureConnection, AGoodbyeAfterAFloodIsSeenBeforeASend) {
    std::promise<void> poured;
    std::string heardAfterwards;
    {
        PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
            peer.Say(Records(session, [&] {
                AskForHandshakes(session, 1500);
                SSL_shutdown(session);
            }));
            poured.set_value();
            heardAfterwards = peer.Hear(1 << 20);
        });
        TLS_CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        poured.get_future().wait();
        EXPECT_EQ(WSAECONNRESET, client.SendText("request"));
        EXPECT_EQ(Open + Ended(0), client.events);
    }
    EXPECT_EQ(std::string::npos, heardAfterwards.find("\x17\x03\x03")) << "a record of data went out into the end";
}

TEST(SecureConnection, AServerIsNamedTheHostAndSentAGoodbye) {
    NameServer().addresses["one.example"] = {"127.0.0.1"};
    for (const std::string way : {"disconnects", "connects again", "is destroyed"}) {
        SCOPED_TRACE(way);
        const bool byName = way == "disconnects";
        std::string named;
        bool saidGoodbye = false;
        {
            PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED&) {
                const char* name = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
                if (name != nullptr) named = name;
                Hear(session, 1);
                saidGoodbye = (SSL_get_shutdown(session) & SSL_RECEIVED_SHUTDOWN) != 0;
            });
            TLS_CLIENT client;
            ASSERT_TRUE(client.Opens(server.Port(), byName ? "one.example" : "127.0.0.1"));
            if (way == "disconnects") client.Disconnect();
            if (way == "connects again") client.Connect("127.0.0.1", 1);
        }
        EXPECT_TRUE(saidGoodbye);
        EXPECT_EQ(byName ? "one.example" : "", named) << "an address is no name";
    }
}

}  // namespace
