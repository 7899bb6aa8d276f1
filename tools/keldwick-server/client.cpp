#include "tools/keldwick-server/client.h"

#include <openssl/err.h>
#include <sys/epoll.h>
#include <sys/socket.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

namespace tools {
namespace {

constexpr int MaxReadsPerRound = 4;
constexpr size_t ReadBytes = 64 * 1024;
constexpr size_t MaxAnswersWaiting = 64 * 1024;  // a client that does not take its answers is not read from any more

}  // namespace

CLIENT::CLIENT(win32::DESCRIPTOR descriptor, CONNECTION whose, SSL_CTX* context)
    : socket(std::move(descriptor)), connection(std::move(whose)), shaken(context == nullptr) {
    if (context == nullptr) return;
    session.reset(SSL_new(context));
    if (session && SSL_set_fd(session.get(), socket.Get()) == 1)
        SSL_set_accept_state(session.get());
    else
        session.reset();
}

CLIENT::~CLIENT() {
    if (session && shaken && end.complaint.empty()) SSL_shutdown(session.get());
    ERR_clear_error();
}

bool CLIENT::Serve(uint32_t status, const SEEN& seen) {
    static std::array<uint8_t, ReadBytes> buffer;  // one thread serves all clients
    if (!shaken && !session) return false;
    if (!shaken && !Handshake()) return !ended;
    stalled = false;
    if (Owes() == nullptr) progress = CLOCK::now();
    bool goesOn = Flush();
    for (int round = 0; goesOn && !ended && !stalled && round < MaxReadsPerRound; ++round) {
        if (answers.size() > MaxAnswersWaiting) break;
        size_t count = 0;
        const RESULT result = Read(buffer.data(), buffer.size(), count);
        stalled = result == RESULT::Stalled;
        ended = result == RESULT::Over;
        if (result != RESULT::Some) break;
        reader.Append({buffer.data(), count});
        goesOn = Answer(status);
        if (!session && count < buffer.size()) stalled = true;
        if (session && SSL_has_pending(session.get()) == 0) stalled = true;
    }
    if (!reports.empty()) progress = CLOCK::now();
    for (REPORT& report : reports) seen(connection, std::move(report));
    reports.clear();
    if (ended && end.complaint.empty() && reader.Held() != 0) end.complaint = "ended in the middle of a request";
    return goesOn && !(ended && answers.empty());
}

const char* CLIENT::Owes() const {
    return !shaken ? "its TLS handshake" : reader.Held() != 0 ? "a request" : !answers.empty() ? "an answer" : nullptr;
}

uint32_t CLIENT::Wanted() const {
    uint32_t wanted = 0;
    if (!ended && answers.size() <= MaxAnswersWaiting) wanted |= EPOLLIN;
    if (!answers.empty() || tlsWantsRoom) wanted |= EPOLLOUT;
    return wanted;
}

// Whether it is done. Otherwise it goes on later, or the connection has ended.
bool CLIENT::Handshake() {
    ERR_clear_error();
    switch (TlsResult(SSL_do_handshake(session.get()))) {
        case RESULT::Some:
            shaken = true;
            return true;
        case RESULT::Stalled:
            break;
        case RESULT::Over:
            ended = true;
            if (end.complaint.empty() && BIO_number_read(SSL_get_rbio(session.get())) != 0)
                end.complaint = "ended in the TLS handshake";
            break;
    }
    return false;
}

CLIENT::RESULT CLIENT::Read(uint8_t* buffer, size_t capacity, size_t& count) {
    if (session) {
        ERR_clear_error();
        return TlsResult(SSL_read_ex(session.get(), buffer, capacity, &count));
    }
    const ssize_t got = recv(socket.Get(), buffer, capacity, 0);
    if (got < 0 && (errno == EAGAIN || errno == EINTR)) return RESULT::Stalled;
    if (got < 0) end.complaint = std::strerror(errno);
    count = got > 0 ? static_cast<size_t>(got) : 0;
    return got > 0 ? RESULT::Some : RESULT::Over;
}

CLIENT::RESULT CLIENT::Write(const uint8_t* bytes, size_t length, size_t& count) {
    if (session) {
        ERR_clear_error();
        return TlsResult(SSL_write_ex(session.get(), bytes, length, &count));
    }
    const ssize_t sent = send(socket.Get(), bytes, length, MSG_NOSIGNAL);
    if (sent < 0 && (errno == EAGAIN || errno == EINTR)) return RESULT::Stalled;
    if (sent < 0) end.complaint = std::strerror(errno);
    count = sent > 0 ? static_cast<size_t>(sent) : 0;
    return sent > 0 ? RESULT::Some : RESULT::Over;
}

CLIENT::RESULT CLIENT::TlsResult(int result) {
    const int savedErrno = errno;
    tlsWantsRoom = false;
    if (result > 0) return RESULT::Some;
    switch (SSL_get_error(session.get(), result)) {
        case SSL_ERROR_WANT_WRITE:
            tlsWantsRoom = true;
            return RESULT::Stalled;
        case SSL_ERROR_WANT_READ:
            return RESULT::Stalled;
        case SSL_ERROR_ZERO_RETURN:
            return RESULT::Over;
        case SSL_ERROR_SYSCALL:
            if (savedErrno != 0) end.complaint = std::strerror(savedErrno);
            return RESULT::Over;
        default: {
            const unsigned long error = ERR_peek_error();
            if (ERR_GET_REASON(error) == SSL_R_UNEXPECTED_EOF_WHILE_READING) return RESULT::Over;
            const char* reason = ERR_reason_error_string(error);
            Refuse(std::string("TLS: ") + (reason != nullptr ? reason : "unknown failure"));
            return RESULT::Over;
        }
    }
}

// Takes every whole request out of the reader and sends the answers. False: the connection is over.
bool CLIENT::Answer(uint32_t status) {
    for (;;) {
        REPORT report;
        const PARSED result = reader.Next(report.request, &report.bytes);
        if (result == PARSED::Incomplete) return Flush();
        if (result == PARSED::Malformed) {
            Flush();
            end.bytes = std::move(report.bytes);
            Refuse("malformed request: " + reader.Reason());
            return false;
        }
        AppendAnswer(report.request.id, status, answers);
        report.when = std::chrono::system_clock::now();
        report.status = status;
        reports.push_back(std::move(report));
    }
}

void CLIENT::Refuse(std::string why) {
    end.complaint = std::move(why);
    end.refused = true;
}

bool CLIENT::Flush() {
    size_t done = 0;
    RESULT result = RESULT::Some;
    while (done < answers.size() && result == RESULT::Some) {
        size_t count = 0;
        result = Write(answers.data() + done, answers.size() - done, count);
        if (result == RESULT::Some) done += count;
    }
    if (done != 0) progress = CLOCK::now();
    answers.erase(answers.begin(), answers.begin() + static_cast<std::ptrdiff_t>(done));
    return result != RESULT::Over;
}

}  // namespace tools
