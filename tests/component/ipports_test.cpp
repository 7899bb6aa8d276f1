// The clients over plain TCP and over TLS. Each one's events are written down, and its event and its limit alone drive
// it.
#include <future>

#include "either_client.h"
#include "tests/support/owned_handle.h"
#include "tests/support/tls_peer.h"
#include "tests/support/wrapped_calls.h"

namespace {

using namespace keldwick;

using EVENTS = std::vector<std::string>;
EVENTS Ended(int status, const std::string& how = "Disconnected") { return {how + " " + std::to_string(status)}; }
const EVENTS Open = {"Connected 0", "ReadyToSend"};
EVENTS operator+(EVENTS a, const EVENTS& b) {
    a.insert(a.end(), b.begin(), b.end());
    return a;
}

template <typename BASE>
class EVENT_RECORDER : public BASE {
public:
    EVENTS events;
    std::string received;  // of all DataIn events

    int FireConnected(int status, const char*) override { return Note("Connected " + std::to_string(status)); }
    int FireDataIn(const BYTE* bytes, int count) override {
        received.append(reinterpret_cast<const char*>(bytes), static_cast<size_t>(count));
        return Note("DataIn");
    }
    int FireDisconnected(int status, const char*) override { return Note("Disconnected " + std::to_string(status)); }
    int FireError(int code, const char*) override { return Note("Error " + std::to_string(code)); }
    int FireReadyToSend() override { return Note("ReadyToSend"); }

    // Lets events through until one begins so. Nothing moves on but by the handle.
    bool Await(const std::string& wanted) {
        const auto begins = [&](const std::string& one) { return one.starts_with(wanted); };
        return Until([&] { return std::any_of(events.begin(), events.end(), begins); });
    }
    bool AwaitBytes(size_t count) {
        return Until([&] { return received.size() >= count; });
    }
    bool Opens(int port, const char* server = "127.0.0.1") {
        this->Connect(server, port);
        return Await("ReadyToSend");
    }
    // What the next call of ProcessEvents delivers.
    EVENTS Turn() {
        EXPECT_TRUE(AwaitTurn(15'000));
        const auto before = static_cast<std::ptrdiff_t>(events.size());
        this->ProcessEvents();
        return {events.begin() + before, events.end()};
    }
    // At most one signal is left, from before the last of the bytes was read.
    bool Idle() {
        if (this->Signalled(0)) this->ProcessEvents();
        return this->WaitLimit() == INFINITE && !this->Signalled(0);
    }
    int SendText(const std::string& text) {
        this->ProcessEvents();
        return this->Send(text.data(), static_cast<int>(text.size()));
    }

private:
    // False: nothing for so long.
    bool AwaitTurn(DWORD milliseconds) {
        const DWORD limit = this->WaitLimit();
        return this->Signalled(std::min(limit, milliseconds)) || limit <= milliseconds;
    }
    template <typename DONE>
    bool Until(DONE done) {
        const ULONGLONG end = GetTickCount64() + 15'000;
        while (!done()) {
            const ULONGLONG now = GetTickCount64();
            if (!AwaitTurn(now < end ? static_cast<DWORD>(end - now) : 0)) return false;
            this->ProcessEvents();
        }
        return true;
    }
    int Note(const std::string& what) {
        events.push_back(what);
        return 0;
    }
};

class PLAIN_CLIENT : public IPPort {
public:
    bool Signalled(DWORD milliseconds) { return WaitForSingleObject(EventHandle(), milliseconds) == WAIT_OBJECT_0; }
};
using CLIENT = EVENT_RECORDER<PLAIN_CLIENT>;

TEST(PlainConnection, AttemptsThatCannotSucceedEndInOneEvent) {
    LISTENING closed;
    const int port = closed.Port();
    closed.Close();
    const std::tuple<const char*, int, int> cases[] = {{"127.0.0.1", port, WSAECONNREFUSED},
                                                       {"[127.0.0.1]", port, WSAECONNREFUSED},
                                                       {"nobody.example", port, WSAHOST_NOT_FOUND},
                                                       {"", port, WSAEINVAL},
                                                       {"127.0.0.1", 65536, WSAEINVAL}};
    for (const auto& [host, at, status] : cases) {
        SCOPED_TRACE(std::string(host) + " " + std::to_string(at));
        CLIENT client;
        client.Connect(host, at);
        EXPECT_TRUE(client.events.empty()) << "events come from ProcessEvents";
        ASSERT_TRUE(client.Await("Connected"));
        EXPECT_EQ(Ended(status, "Connected"), client.events);
        EXPECT_TRUE(client.Idle());
    }
}

TEST(PlainConnection, ACloseAfterAFloodIsSeenBeforeASend) {
    constexpr size_t readInOneTurn = 256 << 10;
    const LISTENING listening;
    CLIENT client;
    ASSERT_TRUE(client.Opens(listening.Port()));
    ACCEPTED peer = listening.Accept();
    const std::string garbage(8 << 20, 'x');
    const ssize_t taken = send(peer.Get(), garbage.data(), garbage.size(), MSG_DONTWAIT);
    ASSERT_GT(taken, static_cast<ssize_t>(readInOneTurn)) << "the kernel takes less than shows anything";
    peer.Close();
    EXPECT_EQ(WSAECONNRESET, client.SendText("request"));
    EXPECT_EQ("Disconnected 0", client.events.back());
    EXPECT_EQ(static_cast<size_t>(taken), client.received.size());
}

TEST(PlainConnection, ASendWaitsForRoomAndForNothingElse) {
    const std::string large(32 << 20, 'x');
    for (const int code : {0, WSAETIMEDOUT, WSAECANCELLED, WSAECONNRESET}) {
        SCOPED_TRACE(code);
        const OWNED_HANDLE cancel(CreateEventW(nullptr, TRUE, FALSE, nullptr));
        const LISTENING listening;
        CLIENT client;
        ASSERT_TRUE(client.Opens(listening.Port()));
        client.SetCancelEvent(cancel);
        if (code == WSAETIMEDOUT) client.SetTimeout(1);
        ACCEPTED peer = listening.Accept();
        size_t heard = 0;
        std::thread hears([&] {
            heard = peer.Hear(code == 0 ? large.size() : 1).size();
            if (code == WSAECANCELLED) SetEvent(cancel);
            if (code == WSAECONNRESET) peer.Reset();
        });
        EXPECT_EQ(code, client.SendText(large));
        hears.join();
        EXPECT_EQ(code == 0 ? large.size() : 1, heard);
        EXPECT_EQ(Open + (code == 0 ? EVENTS{} : Ended(code)), client.events);
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

class TLS_CLIENT : public EVENT_RECORDER<EITHER_CLIENT> {
public:
    bool acceptsAll = true;
    EVENTS authentications;  // "subject / issuer / status / accept"
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
    // Which are enabled, the server's lowest and highest, and what is spoken; null: no connection.
    const std::tuple<int, int, int, const char*> cases[] = {
        {3840, TLS1_2_VERSION, TLS1_2_VERSION, "TLSv1.2"},
        {3840, TLS1_1_VERSION, TLS1_1_VERSION, "TLSv1.1"},
        {3840, TLS1_VERSION, TLS1_3_VERSION, "TLSv1.2"},
        {3840, TLS1_VERSION, TLS1_VERSION, nullptr},
        {3840, TLS1_3_VERSION, TLS1_3_VERSION, nullptr},
        {0, TLS1_VERSION, TLS1_3_VERSION, nullptr},
        {128, TLS1_VERSION, TLS1_2_VERSION, "TLSv1"},
        {256, TLS1_VERSION, TLS1_2_VERSION, "TLSv1.1"},
        {12288, TLS1_VERSION, TLS1_3_VERSION, OTHER_SYSTEM::Get() ? nullptr : "TLSv1.3"}};  // wine has no 1.3
    for (const auto& [protocols, lowest, highest, spoken] : cases) {
        const std::string setting = "SSLEnabledProtocols=" + std::to_string(protocols);
        SCOPED_TRACE(setting + " to " + std::to_string(lowest) + "-" + std::to_string(highest));
        PLAYED server(SERVER_KIND{lowest, highest}, Echo);
        TLS_CLIENT client;
        EXPECT_EQ(0, client.Config(setting.c_str()));
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await(spoken != nullptr ? "ReadyToSend" : "Connected"));
        EXPECT_EQ(spoken != nullptr ? Open : Ended(WSAECONNABORTED, "Connected"), client.events);
        if (spoken == nullptr) continue;
        EXPECT_NE(std::string::npos, client.status.find(std::string("done: ") + spoken + ",")) << client.status;
        EXPECT_EQ(0, client.SendText("request"));
        EXPECT_TRUE(client.AwaitBytes(7));
        EXPECT_EQ("request", client.received);
        EXPECT_TRUE(client.Idle());
        client.Disconnect();
        EXPECT_EQ(Open + EVENTS({"DataIn", "Disconnected 0"}), client.events);
    }
}

TEST(SecureConnection, SettingsThatAreNoneAreRefused) {
    TLS_CLIENT client;
    for (const char* setting : {"", "SSLEnabledProtocols=", "SSLEnabledProtocols=1x", "SSLEnabledProtocols=99999999999",
                                "Other=1", static_cast<const char*>(nullptr)})
        EXPECT_EQ(WSAEINVAL, client.Config(setting));
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
    // WSAECONNRESET: any status, as closing with unread bytes is a reset to some kernels.
    const std::tuple<const char*, int, PLAYED::SCRIPT> cases[] = {
        {"garbage", WSAECONNABORTED,
         [](ACCEPTED& peer) { peer.Say("HTTP/1.1 400 Bad Request\r\n\r\n"), peer.Hear(1); }},
        {"alert", WSAECONNABORTED, [](ACCEPTED& peer) { peer.Say(alert), peer.Hear(1); }},
        {"close", WSAECONNRESET, [](ACCEPTED& peer) { peer.Hear(100), peer.Say(half); }},
        {"reset", WSAECONNRESET, [](ACCEPTED& peer) { peer.Hear(100), peer.Reset(); }},
        {"silence", WSAETIMEDOUT, [](ACCEPTED& peer) { peer.Say(half), peer.Hear(1 << 20); }}};
    for (const auto& [name, status, script] : cases) {
        SCOPED_TRACE(name);
        PLAYED server(script);
        TLS_CLIENT client;
        client.SetTimeout(1);
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await("Connected"));
        ASSERT_EQ(1u, client.events.size()) << testing::PrintToString(client.events);
        EXPECT_NE("Connected 0", client.events[0]);
        EXPECT_TRUE(status == WSAECONNRESET || client.events == Ended(status, "Connected")) << client.events[0];
        EXPECT_TRUE(client.Idle());
    }
}

TEST(SecureConnection, EveryKindOfEndIsSeenAfterTheBytesBeforeIt) {
    // What the server does after "bye".
    const std::tuple<const char*, int, PLAYED::TLS_SCRIPT> cases[] = {
        {"goodbye", 0, [](SSL* session, ACCEPTED&) { SSL_shutdown(session); }},
        {"goodbye that stays", 0, [](SSL* session, ACCEPTED& peer) { SSL_shutdown(session), peer.Hear(1 << 20); }},
        {"cut off", 0, [](SSL*, ACCEPTED& peer) { peer.Close(); }},
        {"cut off in a record", 0, [](SSL*, ACCEPTED& peer) { peer.Say("\x17\x03\x03"); }},
        {"garbage", WSAECONNABORTED, [](SSL*, ACCEPTED& peer) { peer.Say("garbage garbage"), peer.Hear(1 << 20); }}};
    for (const auto& [name, status, script] : cases) {
        SCOPED_TRACE(name);
        PLAYED server(SERVER_KIND{},
                      [&play = script](SSL* session, ACCEPTED& peer) { Say(session, "bye"), play(session, peer); });
        TLS_CLIENT client;
        ASSERT_TRUE(client.Opens(server.Port()));
        ASSERT_TRUE(client.Await("Disconnected"));
        EXPECT_EQ(Ended(status), EVENTS{client.events.back()});
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
        EXPECT_TRUE(client.AwaitBytes(7));
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
