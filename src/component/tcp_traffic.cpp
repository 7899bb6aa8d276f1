// The open connection: what comes in, what goes out, and how its end is noticed.
#include <poll.h>
#include <winsock2.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <limits>

#include "component/socket_text.h"
#include "component/tcp_connection.h"
#include "win32/sockets/socket_error.h"

namespace keldwick {
namespace {

constexpr int MostReadsPerCall = 16;                       // 256 KiB; then the caller has its turn again
constexpr auto RoomLook = std::chrono::milliseconds(100);  // between two looks whether a wait for room is called off
constexpr int MostReadRounds = 64;  // before a send, so that a peer that never stops talking cannot hold it up

// True while in scope, however the scope is left.
class RAISED {
public:
    explicit RAISED(bool& which) : flag(which) { flag = true; }
    ~RAISED() { flag = false; }
    RAISED(const RAISED&) = delete;
    RAISED& operator=(const RAISED&) = delete;

private:
    bool& flag;
};

constexpr const char* ClosedByServer = "The server closed the connection.";

}  // namespace

TCP_CONNECTION::RESULT TCP_CONNECTION::Receive(int& count) {
    if (tls) return tls->Read(buffer.data(), static_cast<int>(buffer.size()), count);
    const ssize_t got = recv(socket.Get(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    count = static_cast<int>(got);
    if (got > 0) return RESULT::Done;
    if (got == 0) return RESULT::Closed;
    return errno == EAGAIN || errno == EINTR ? RESULT::WantRead : RESULT::Failed;
}

TCP_CONNECTION::RESULT TCP_CONNECTION::Transmit(const BYTE* bytes, int length, int& count) {
    if (tls) return tls->Write(bytes, length, count);
    const ssize_t sent = send(socket.Get(), bytes, static_cast<size_t>(length), MSG_NOSIGNAL | MSG_DONTWAIT);
    count = static_cast<int>(sent);
    if (sent >= 0) return RESULT::Done;
    return errno == EAGAIN || errno == EINTR ? RESULT::WantWrite : RESULT::Failed;
}

// Delivers what has arrived: bytes, or else the end of the connection. False always: there is no next step.
bool TCP_CONNECTION::ReadAvailable() {
    if (delivering) return false;
    foundNothing = false;
    if (ending) {
        const ENDING known = *ending;
        return Ended(known.code, known.text, false);
    }
    for (int round = 0; round < MostReadsPerCall; ++round) {
        int count = 0;
        const RESULT result = Receive(count);
        switch (result) {
            case RESULT::Done: {
                const unsigned mine = generation;
                {
                    const RAISED raised(delivering);
                    receiver.DataIn(buffer.data(), count);
                }
                if (generation != mine) return false;
                const bool maybeMore = tls ? tls->HasBuffered() : static_cast<size_t>(count) == buffer.size();
                if (!maybeMore) return false;
                break;
            }
            case RESULT::WantRead:
            case RESULT::WantWrite:
                foundNothing = true;
                if (awaitsRoom != (result == RESULT::WantWrite)) {
                    awaitsRoom = !awaitsRoom;
                    BindEvent(socket.Get(), awaitsRoom ? FD_READ | FD_CLOSE | FD_WRITE : FD_READ | FD_CLOSE);
                }
                return false;
            case RESULT::Paused:
                return false;
            case RESULT::Closed:
                return Ended(0, ClosedByServer, round > 0);
            case RESULT::Failed: {
                const int code = tls ? tls->FailureCode() : win32::SocketErrorFromErrno(errno);
                return Ended(code, tls ? FailureSentence(*tls) : SocketErrorText(code), round > 0);
            }
        }
    }
    if (tls && tls->HasBuffered()) SetEvent(event);  // the socket does not poll readable for it
    return false;
}

// Tells of the end; behind bytes that the caller has only just been given not before the next call, so that whoever
// waits for an answer can take it from a server that closes behind it. False always.
bool TCP_CONNECTION::Ended(int code, const std::string& text, bool behindBytes) {
    if (behindBytes) {
        ending = ENDING{code, text};
        SetEvent(event);
    } else {
        Lost(code, text);
    }
    return false;
}

// Delivers what arrived before a send, and sees a close after it. False: the connection is no longer open.
bool TCP_CONNECTION::NoticeClose() {
    const unsigned mine = generation;
    bool ends = false;
    for (int round = 0; round < MostReadRounds && !delivering; ++round) {
        pollfd polled{socket.Get(), POLLIN | POLLRDHUP, 0};
        const bool arrived = poll(&polled, 1, 0) > 0 || (tls && tls->HasBuffered());
        if (!arrived && !ending) return true;
        ends = (polled.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
        ReadAvailable();
        if (generation != mine) return false;
        if (foundNothing && !ends) return true;
    }
    if (delivering || !ends) return true;
    Lost(WSAECONNABORTED, ClosedByServer);  // it has closed, behind more bytes than anybody wants
    return false;
}

int TCP_CONNECTION::Send(const void* bytes, int count, SEND_LOOK look) {
    if (state != STATE::Open || bytes == nullptr || count < 0) {
        Remember(state != STATE::Open ? WSAENOTCONN : WSAEINVAL, state != STATE::Open ? "Not connected." : "No bytes.");
        return lastError;
    }
    lastError = 0;
    const bool looked = look == SEND_LOOK::HAPPENED && foundNothing;
    if (!looked && !NoticeClose()) return lastError != 0 ? lastError : WSAECONNRESET;
    const auto* next = static_cast<const BYTE*>(bytes);
    CLOCK::time_point end{};  // set when room is first waited for
    while (count > 0) {
        int sent = 0;
        const RESULT result = Transmit(next, count, sent);
        if (result == RESULT::Done) {
            next += sent;
            count -= sent;
        } else if (result == RESULT::WantWrite || result == RESULT::WantRead || result == RESULT::Paused) {
            if (end == CLOCK::time_point{}) end = CLOCK::now() + timeout;
            if (!AwaitRoom(result, end)) return lastError;
        } else {
            const int code = result == RESULT::Closed ? WSAECONNRESET
                             : tls                    ? tls->FailureCode()
                                                      : win32::SocketErrorFromErrno(errno);
            Lost(code, tls && result == RESULT::Failed ? FailureSentence(*tls) : SocketErrorText(code));
            return code;
        }
    }
    return 0;
}

bool TCP_CONNECTION::IsCancelled() const {
    return cancelEvent != nullptr && WaitForSingleObject(cancelEvent, 0) == WAIT_OBJECT_0;
}

// Waits a moment for the socket to go on. False: it will not; the connection is lost, the error remembered.
bool TCP_CONNECTION::AwaitRoom(RESULT wanted, CLOCK::time_point end) {
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - CLOCK::now());
    const bool cancelled = IsCancelled();
    const short direction = wanted == RESULT::WantWrite ? POLLOUT : POLLIN;
    pollfd polled{socket.Get(), static_cast<short>(direction | POLLRDHUP), 0};
    const int ready =
        left.count() > 0 && !cancelled ? poll(&polled, 1, static_cast<int>(std::min(left, RoomLook).count())) : 0;
    if (ready < 0 && errno == EINTR) return true;
    if (ready > 0 && !(polled.revents & (POLLRDHUP | POLLHUP | POLLERR))) return true;
    if (ready == 0 && !cancelled && left > RoomLook) return true;
    const int code = cancelled    ? WSAECANCELLED
                     : ready == 0 ? WSAETIMEDOUT
                     : ready < 0  ? win32::SocketErrorFromErrno(errno)
                                  : WSAECONNRESET;
    Lost(code, SocketErrorText(code));
    lastError = code;
    return false;
}

void TCP_CONNECTION::Lost(int code, const std::string& text) {
    Close();
    Remember(code, text);
    // A copy: a handler may make the next attempt, and with it another text.
    const std::string description = text;  // NOLINT(performance-unnecessary-copy-initialization)
    receiver.Disconnected(code, description.c_str());
    Remember(code, description);
}

}  // namespace keldwick
