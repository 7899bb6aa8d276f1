// A server that speaks TLS, and one that only pretends to, each playing a script on one connection.
#pragma once

#include <openssl/ssl.h>
#include <openssl/x509.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <thread>

#include "tests/support/peer.h"

struct SERVER_KIND {
    int lowest = TLS1_2_VERSION, highest = TLS1_2_VERSION;
    long validTo = 3600;  // seconds from now
};

template <auto FREE>
struct FREER {
    void operator()(auto* owned) const { FREE(owned); }
};
template <typename T, auto FREE>
using OWNED = std::unique_ptr<T, FREER<FREE>>;
using CERTIFICATE = OWNED<X509, X509_free>;

inline OWNED<SSL_CTX, SSL_CTX_free> NewServer(const SERVER_KIND& kind) {
    OWNED<SSL_CTX, SSL_CTX_free> context(SSL_CTX_new(TLS_server_method()));
    const OWNED<EVP_PKEY, EVP_PKEY_free> key(EVP_EC_gen("P-256"));
    const CERTIFICATE certificate(X509_new());
    X509* const raw = certificate.get();
    ASN1_INTEGER_set(X509_get_serialNumber(raw), 1);
    X509_gmtime_adj(X509_getm_notBefore(raw), -7200);
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
              sigset_t pipes;  // blocked: this thread's OpenSSL writes with write
              sigemptyset(&pipes);
              sigaddset(&pipes, SIGPIPE);
              pthread_sigmask(SIG_BLOCK, &pipes, nullptr);
              ACCEPTED peer = listening.Accept();
              play(peer);
          }) {}
    PLAYED(const SERVER_KIND& kind, TLS_SCRIPT script)
        : PLAYED([kind, play = std::move(script)](ACCEPTED& peer) {
              const auto context = NewServer(kind);
              const OWNED<SSL, SSL_free> session(SSL_new(context.get()));
              SSL_set_fd(session.get(), peer.Get());
              if (SSL_accept(session.get()) == 1) play(session.get(), peer);
          }) {}
    ~PLAYED() { thread.join(); }
    int Port() const { return listening.Port(); }

private:
    LISTENING listening;
    std::thread thread;
};

inline std::string Hear(SSL* session, size_t count) {
    std::string text(count, 0);
    size_t done = 0;
    for (size_t got; done < count && SSL_read_ex(session, text.data() + done, count - done, &got) == 1;) done += got;
    return text.substr(0, done);
}

inline void Say(SSL* session, const std::string& text) {
    SSL_write(session, text.data(), static_cast<int>(text.size()));
}

// The records that the session makes while it talks. It sends nothing itself any more.
inline std::string Records(SSL* session, const std::function<void()>& talk) {
    BIO* const records = BIO_new(BIO_s_mem());
    SSL_set0_wbio(session, records);
    talk();
    char* bytes = nullptr;
    const auto count = static_cast<size_t>(BIO_get_mem_data(records, &bytes));
    return {bytes, count};
}

// A client need not answer a request for a new handshake, so it can be sent any number of them.
inline void AskForHandshakes(SSL* session, int count) {
    while (count-- > 0) {
        SSL_renegotiate(session);
        SSL_do_handshake(session);
    }
}

// Sends the bytes bit by bit and passes over what the client says. False: it has gone before it was sent them all.
inline bool Pour(const ACCEPTED& peer, const std::string& bytes) {
    constexpr size_t bit = 32768;
    const timeval patience{10, 0};
    const int room = 16384;  // so that nearly all that was sent was read
    setsockopt(peer.Get(), SOL_SOCKET, SO_SNDTIMEO, &patience, sizeof(patience));
    setsockopt(peer.Get(), SOL_SOCKET, SO_SNDBUF, &room, sizeof(room));
    std::string passed(1 << 20, 0);
    for (size_t done = 0; done < bytes.size();) {
        while (recv(peer.Get(), passed.data(), passed.size(), MSG_DONTWAIT) > 0) {
        }
        const ssize_t sent = send(peer.Get(), bytes.data() + done, std::min(bit, bytes.size() - done), MSG_NOSIGNAL);
        if (sent <= 0) return false;
        done += static_cast<size_t>(sent);
    }
    return true;
}
