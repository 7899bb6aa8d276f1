#include "component/ipport.h"

#include <gtest/gtest.h>
#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>

#include <functional>
#include <memory>
#include <thread>

#include "names.h"
#include "peer.h"
#include "recorder.h"

namespace {

using namespace keldwick;

class CLIENT : public EVENT_RECORDER<IPPortS> {
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
    int SendText(const std::string& text) { return Send(text.data(), static_cast<int>(text.size())); }
};

struct SERVER_KIND {
    int lowest = TLS1_2_VERSION, highest = TLS1_2_VERSION;
    long validFrom = -3600, validTo = 3600;  // seconds from now
};

using CONTEXT = std::unique_ptr<SSL_CTX, decltype(&SSL_CTX_free)>;

CONTEXT NewServer(const SERVER_KIND& kind) {
    CONTEXT context(SSL_CTX_new(TLS_server_method()), SSL_CTX_free);
    const std::unique_ptr<EVP_PKEY, decltype(&EVP_PKEY_free)> key(EVP_EC_gen("P-256"), EVP_PKEY_free);
    const std::unique_ptr<X509, decltype(&X509_free)> certificate(X509_new(), X509_free);
    X509* const raw = certificate.get();
    ASN1_INTEGER_set(X509_get_serialNumber(raw), 1);
    X509_gmtime_adj(X509_getm_notBefore(raw), kind.validFrom);
    X509_gmtime_adj(X509_getm_notAfter(raw), kind.validTo);
    X509_set_pubkey(raw, key.get());
    const auto* name = reinterpret_cast<const unsigned char*>("identity.example");
    X509_NAME_add_entry_by_txt(X509_get_subject_name(raw), "CN", MBSTRING_UTF8, name, -1, -1, 0);
    X509_set_issuer_name(raw, X509_get_subject_name(raw));
    X509_sign(raw, key.get(), EVP_sha256());
    SSL_CTX_use_certificate(context.get(), raw);
    SSL_CTX_use_PrivateKey(context.get(), key.get());
    SSL_CTX_set_min_proto_version(context.get(), kind.lowest);
    SSL_CTX_set_max_proto_version(context.get(), kind.highest);
    SSL_CTX_set_cipher_list(context.get(), "DEFAULT:@SECLEVEL=0");
    return context;
}

// A server on a thread of its own, which accepts one connection and plays a script on it.
class PLAYED {
public:
    using SCRIPT = std::function<void(ACCEPTED&)>;
    using TLS_SCRIPT = std::function<void(SSL*, ACCEPTED&)>;

    explicit PLAYED(SCRIPT script)
        : thread([this, play = std::move(script)] {
              BlockBrokenPipes();
              ACCEPTED peer = listening.Accept();
              play(peer);
          }) {}
    PLAYED(const SERVER_KIND& kind, TLS_SCRIPT script)
        : PLAYED([kind, play = std::move(script)](ACCEPTED& peer) {
              const CONTEXT context = NewServer(kind);
              const std::unique_ptr<SSL, decltype(&SSL_free)> session(SSL_new(context.get()), SSL_free);
              SSL_set_fd(session.get(), peer.Get());
              if (SSL_accept(session.get()) == 1) play(session.get(), peer);
          }) {}
    ~PLAYED() { thread.join(); }
    int Port() const { return listening.Port(); }

private:
    static void BlockBrokenPipes() {  // this thread's OpenSSL writes with write
        sigset_t pipes;
        sigemptyset(&pipes);
        sigaddset(&pipes, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipes, nullptr);
    }
    LISTENING listening;
    std::thread thread;
};

std::string Hear(SSL* session, int count) {
    std::string text(static_cast<size_t>(count), 0);
    int done = 0;
    while (done < count) {
        const int got = SSL_read(session, text.data() + done, count - done);
        if (got <= 0) break;
        done += got;
    }
    text.resize(static_cast<size_t>(done));
    return text;
}

void Say(SSL* session, const std::string& text) { SSL_write(session, text.data(), static_cast<int>(text.size())); }

// Echoes seven bytes, then waits for the client to go.
void Echo(SSL* session, ACCEPTED&) {
    Say(session, Hear(session, 7));
    Hear(session, 1);
}

constexpr const char* Tls11And12 = "SSLEnabledProtocols=3840";

TEST(SecureConnection, UsesTheEnabledVersionsAndNoOthers) {
    struct CASE {
        const char* protocols;
        int lowest, highest;
        const char* spoken;  // null: no connection
    };
    const CASE cases[] = {{Tls11And12, TLS1_2_VERSION, TLS1_2_VERSION, "TLSv1.2"},
                          {Tls11And12, TLS1_1_VERSION, TLS1_1_VERSION, "TLSv1.1"},
                          {Tls11And12, TLS1_VERSION, TLS1_3_VERSION, "TLSv1.2"},
                          {Tls11And12, TLS1_VERSION, TLS1_VERSION, nullptr},
                          {Tls11And12, TLS1_3_VERSION, TLS1_3_VERSION, nullptr},
                          {"SSLEnabledProtocols=128", TLS1_VERSION, TLS1_2_VERSION, "TLSv1"},
                          {"SSLEnabledProtocols=256", TLS1_VERSION, TLS1_2_VERSION, "TLSv1.1"},
                          {"SSLEnabledProtocols=12288", TLS1_VERSION, TLS1_3_VERSION, "TLSv1.3"}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(std::string(c.protocols) + " to " + std::to_string(c.lowest) + "-" + std::to_string(c.highest));
        PLAYED server(SERVER_KIND{c.lowest, c.highest}, Echo);
        CLIENT client;
        EXPECT_EQ(0, client.Config(c.protocols));
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await("Connected"));
        if (c.spoken == nullptr) {
            EXPECT_EQ(EVENTS{"Connected " + std::to_string(Aborted)}, client.events);
            continue;
        }
        ASSERT_TRUE(client.Await("ReadyToSend"));
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
    CLIENT client;
    for (const char* setting : {"", "SSLEnabledProtocols", "SSLEnabledProtocols=", "SSLEnabledProtocols=x",
                                "SSLEnabledProtocols=1x", "SSLEnabledProtocols=99999999999", "Other=1"})
        EXPECT_EQ(AddressInvalid, client.Config(setting)) << setting;
    EXPECT_EQ(AddressInvalid, client.Config(nullptr));
    EXPECT_EQ(0, client.Config("SSLEnabledProtocols=0"));
    LISTENING listening;
    client.Connect("127.0.0.1", listening.Port());
    ASSERT_TRUE(client.Await("Connected"));
    EXPECT_EQ(EVENTS{"Connected " + std::to_string(Aborted)}, client.events);
}

TEST(SecureConnection, TheOwnerDecidesAboutTheCertificate) {
    struct CASE {
        const char* name;
        long validFrom, validTo;
        bool accepts;
        const char* status;
    };
    const CASE cases[] = {{"self-signed", -3600, 3600, true, "self-signed certificate"},
                          {"expired", -7200, -3600, true, "self-signed certificate"},
                          {"turned down", -3600, 3600, false, "self-signed certificate"}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        PLAYED server(SERVER_KIND{TLS1_2_VERSION, TLS1_2_VERSION, c.validFrom, c.validTo}, Echo);
        CLIENT client;
        client.acceptsAll = c.accepts;
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await(c.accepts ? "ReadyToSend" : "Disconnected"));
        EXPECT_EQ(c.accepts ? Open : EVENTS({"Error 280", "Disconnected 280"}), client.events);
        ASSERT_EQ(1u, client.authentications.size());
        const std::string& seen = client.authentications[0];
        EXPECT_TRUE(seen.starts_with("CN=identity.example / CN=identity.example / ")) << seen;
        EXPECT_TRUE(seen.ends_with(" / 0")) << seen;
        EXPECT_NE(std::string::npos, seen.find(c.status)) << seen;
        const BYTE* place = client.certificate.data();
        const std::unique_ptr<X509, decltype(&X509_free)> decoded(
            d2i_X509(nullptr, &place, static_cast<long>(client.certificate.size())), X509_free);
        EXPECT_NE(nullptr, decoded);
    }
}

TEST(SecureConnection, AHandshakeThatGoesWrongIsOneEvent) {
    struct CASE {
        const char* name;
        PLAYED::SCRIPT script;
        int status;
    };
    const CASE cases[] = {
        {"garbage", [](ACCEPTED& peer) { peer.Say("HTTP/1.1 400 Bad Request\r\n\r\n"), peer.Hear(1); }, Aborted},
        {"zeros", [](ACCEPTED& peer) { peer.Say(std::string(70'000, 0)), peer.Hear(1); }, Aborted},
        {"alert", [](ACCEPTED& peer) { peer.Say(std::string("\x15\x03\x03\0\x02\x02\x28", 7)), peer.Hear(1); },
         Aborted},
        {"close at once", [](ACCEPTED& peer) { peer.Hear(100), peer.Close(); }, Reset},
        {"close in the middle",
         [](ACCEPTED& peer) { peer.Hear(100), peer.Say(std::string("\x16\x03\x03\0\x50\x02", 6)); }, Reset},
        {"reset", [](ACCEPTED& peer) { peer.Hear(100), peer.Reset(); }, Reset},
        {"silence", [](ACCEPTED& peer) { peer.Hear(1 << 20); }, TimedOut},
        {"silence in the middle",
         [](ACCEPTED& peer) { peer.Say(std::string("\x16\x03\x03\0\x50\x02", 6)), peer.Hear(1 << 20); }, TimedOut}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        PLAYED server(c.script);
        CLIENT client;
        client.SetTimeout(1);
        client.Connect("127.0.0.1", server.Port());
        ASSERT_TRUE(client.Await("Connected"));
        ASSERT_EQ(1u, client.events.size()) << testing::PrintToString(client.events);
        if (c.status != Reset) {
            EXPECT_EQ("Connected " + std::to_string(c.status), client.events[0]) << client.texts[0];
        } else {  // closing with unread bytes is a reset to some kernels
            EXPECT_NE("Connected 0", client.events[0]);
        }
        EXPECT_TRUE(client.Idle());
    }
}

TEST(SecureConnection, EveryKindOfEndIsSeenAfterTheBytesBeforeIt) {
    struct CASE {
        const char* name;
        PLAYED::TLS_SCRIPT script;
        bool clean;
    };
    const CASE cases[] = {
        {"goodbye", [](SSL* session, ACCEPTED&) { Say(session, "bye"), SSL_shutdown(session); }, true},
        {"goodbye, but the connection stays",
         [](SSL* session, ACCEPTED& peer) { Say(session, "bye"), SSL_shutdown(session), peer.Hear(1 << 20); }, true},
        {"cut off", [](SSL* session, ACCEPTED& peer) { Say(session, "bye"), peer.Close(); }, true},
        {"cut off in a record", [](SSL* session, ACCEPTED& peer) { Say(session, "bye"), peer.Say("\x17\x03\x03"); },
         true},
        {"garbage",
         [](SSL* session, ACCEPTED& peer) { Say(session, "bye"), peer.Say("garbage garbage"), peer.Hear(1 << 20); },
         false}};
    for (const CASE& c : cases)
        for (const bool bySend : {false, true}) {
            SCOPED_TRACE(std::string(c.name) + (bySend ? ", met by a send" : ", waited for"));
            PLAYED server(SERVER_KIND{}, c.script);
            CLIENT client;
            client.Connect("127.0.0.1", server.Port());
            ASSERT_TRUE(client.Await("ReadyToSend"));
            if (bySend) {
                while (client.SendText("request") == 0) std::this_thread::yield();
                EXPECT_TRUE(client.Seen("Disconnected")) << "before the send returns";
            } else {
                ASSERT_TRUE(client.Await("Disconnected"));
                EXPECT_EQ(c.clean ? "Disconnected 0" : "Disconnected " + std::to_string(Aborted), client.events.back());
                EXPECT_EQ("bye", client.received);
            }
            EXPECT_TRUE(client.Idle());
        }
}

// How the client meets an end that lies behind bytes.
enum class MEETS { Waiting, Processing, Sending, SendingFirst };

TEST(SecureConnection, AnEndThatArrivesWithBytesLeavesTimeToTakeThem) {
    for (const bool clean : {true, false})
        for (const MEETS how : {MEETS::Waiting, MEETS::Processing, MEETS::Sending, MEETS::SendingFirst}) {
            SCOPED_TRACE(std::string(clean ? "goodbye " : "garbage ") + std::to_string(static_cast<int>(how)));
            std::string heardBehind;
            const EVENTS end{clean ? "Disconnected 0" : "Disconnected " + std::to_string(Aborted)};
            {
                PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
                    Hear(session, 7);
                    BIO* const records = BIO_new(BIO_s_mem());
                    SSL_set0_wbio(session, records);
                    Say(session, "answer");
                    if (clean) SSL_shutdown(session);
                    char* bytes = nullptr;
                    const auto count = static_cast<size_t>(BIO_get_mem_data(records, &bytes));
                    peer.Say(std::string(bytes, count) + (clean ? "" : "garbage garbage"));
                    heardBehind = peer.Hear(1 << 20);
                });
                CLIENT client;
                client.Connect("127.0.0.1", server.Port());
                ASSERT_TRUE(client.Await("ReadyToSend"));
                EXPECT_EQ(0, client.SendText("request"));
                if (how == MEETS::SendingFirst)
                    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(client.EventHandle(), 15'000));
                else
                    EXPECT_EQ(EVENTS{"DataIn"}, client.Turn());
                if (how == MEETS::Waiting)
                    EXPECT_EQ(end, client.Turn());
                else if (how == MEETS::Processing)
                    client.ProcessEvents();
                else
                    EXPECT_EQ(clean ? Reset : Aborted, client.SendText("another"));
                EXPECT_EQ(Open + EVENTS{"DataIn"} + end, client.events);
                EXPECT_EQ("answer", client.received);
                EXPECT_TRUE(client.Idle());
            }
            EXPECT_FALSE(heardBehind.starts_with("\x17")) << "a record of data went out into the end";
        }
}

TEST(SecureConnection, LargeMessagesGoThroughWhole) {
    const std::string large(3 << 20, 'x');
    PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED&) {
        const std::string heard = Hear(session, static_cast<int>(large.size()));
        Say(session, heard);
        Hear(session, 1);
    });
    CLIENT client;
    client.Connect("127.0.0.1", server.Port());
    ASSERT_TRUE(client.Await("ReadyToSend"));
    EXPECT_EQ(0, client.SendText(large));
    EXPECT_TRUE(client.AwaitBytes(large.size()));
    EXPECT_TRUE(client.received == large);
    EXPECT_TRUE(client.Idle());
}

TEST(SecureConnection, ARenegotiationIsDeclinedAndTheConnectionGoesOn) {
    PLAYED server(SERVER_KIND{}, [](SSL* session, ACCEPTED& peer) {
        SSL_renegotiate(session);
        SSL_do_handshake(session);  // sends the request for it
        Echo(session, peer);
    });
    CLIENT client;
    client.Connect("127.0.0.1", server.Port());
    ASSERT_TRUE(client.Await("ReadyToSend"));
    EXPECT_EQ(0, client.SendText("request"));
    EXPECT_TRUE(client.AwaitBytes(7)) << testing::PrintToString(client.texts);
    EXPECT_EQ("request", client.received);
}

TEST(SecureConnection, OnlyNamesAreNamedToTheServer) {
    knownNames["one.example"] = {"127.0.0.1"};
    for (const char* host : {"one.example", "127.0.0.1"}) {
        std::string named = "nothing";
        {
            PLAYED server(SERVER_KIND{}, [&](SSL* session, ACCEPTED& peer) {
                const char* name = SSL_get_servername(session, TLSEXT_NAMETYPE_host_name);
                if (name != nullptr) named = name;
                Echo(session, peer);
            });
            CLIENT client;
            client.Connect(host, server.Port());
            ASSERT_TRUE(client.Await("ReadyToSend"));
        }
        EXPECT_EQ(std::string(host) == "one.example" ? "one.example" : "nothing", named);
    }
}

}  // namespace
