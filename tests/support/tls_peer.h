// A server on a thread of its own, which accepts one connection over TLS and plays a script on it.
#pragma once

#include <openssl/ssl.h>
#include <signal.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "tests/support/peer.h"
#include "tools/keldwick-server/server_tls.h"

class PLAYED {
public:
    using SCRIPT = std::function<void(SSL*, ACCEPTED&)>;

    explicit PLAYED(const SCRIPT& script) : thread([this, script] { Play(script); }) {}
    ~PLAYED() { thread.join(); }
    int Port() const { return listening.Port(); }

private:
    void Play(const SCRIPT& script) const {
        sigset_t pipes;  // blocked: this thread's OpenSSL writes with write
        sigemptyset(&pipes);
        sigaddset(&pipes, SIGPIPE);
        pthread_sigmask(SIG_BLOCK, &pipes, nullptr);
        ACCEPTED peer = listening.Accept();
        std::string reason;
        const tools::TLS_CONTEXT context = tools::NewServerContext("", "", reason);
        SSL_CTX_set_max_proto_version(context.get(), TLS1_2_VERSION);
        SSL_CTX_clear_options(context.get(), SSL_OP_NO_RENEGOTIATION);
        const std::unique_ptr<SSL, decltype(&SSL_free)> session(SSL_new(context.get()), SSL_free);
        SSL_set_fd(session.get(), peer.Get());
        if (SSL_accept(session.get()) == 1) script(session.get(), peer);
    }

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
    const int room = 16384;  // so that what was sent was read, but for a little
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
