// One client's connection: bytes in, answers out, never waiting.
#pragma once

#include <openssl/ssl.h>

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "tools/keldwick-server/report.h"
#include "win32/sync/descriptor.h"

namespace tools {

struct SSL_FREER {
    void operator()(SSL* session) const { SSL_free(session); }
};

class CLIENT {
public:
    // The descriptor must be non-blocking. context: null for plain TCP.
    CLIENT(win32::DESCRIPTOR descriptor, CONNECTION whose, SSL_CTX* context);
    ~CLIENT();
    CLIENT(const CLIENT&) = delete;
    CLIENT& operator=(const CLIENT&) = delete;

    using SEEN = std::function<void(const CONNECTION&, REPORT&&)>;

    // Reads a bounded amount, answers every whole request with the status, and hands each to `seen` once its answer is
    // on the way. False: the connection is over; End says why when it did not just end.
    bool Serve(uint32_t status, const SEEN& seen);

    using CLOCK = std::chrono::steady_clock;

    // What the client has begun and not ended, which it last brought further at Progress: its handshake, a request, or
    // taking its answers. Null: nothing.
    const char* Owes() const;
    CLOCK::time_point Progress() const { return progress; }

    size_t Held() const { return reader.Held(); }  // bytes of an unfinished request

    // Why it is ended from outside.
    void Complain(std::string why) { end.complaint = std::move(why); }

    // What to wait for, as epoll's bits.
    uint32_t Wanted() const;

    int Descriptor() const { return socket.Get(); }
    const CONNECTION& Connection() const { return connection; }
    const ENDING& End() const { return end; }

    // Whether there is something to do although the descriptor may not say so.
    bool HasBuffered() const { return session && shaken && !stalled && SSL_has_pending(session.get()) == 1; }

private:
    enum class RESULT { Some, Stalled, Over };

    bool Handshake();
    RESULT Read(uint8_t* buffer, size_t capacity, size_t& count);
    RESULT Write(const uint8_t* bytes, size_t length, size_t& count);
    RESULT TlsResult(int result);
    void Refuse(std::string why);
    bool Answer(uint32_t status);
    bool Flush();

    const win32::DESCRIPTOR socket;
    const CONNECTION connection;
    std::unique_ptr<SSL, SSL_FREER> session;
    bool shaken;           // the handshake is done, or none is needed
    bool stalled = false;  // the last read found nothing more
    bool ended = false;    // the client sends nothing more
    bool tlsWantsRoom = false;
    REQUEST_READER reader;
    std::vector<uint8_t> answers;
    std::vector<REPORT> reports;  // of this round
    CLOCK::time_point progress = CLOCK::now();
    ENDING end;
};

}  // namespace tools
