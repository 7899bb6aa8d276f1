// The open connection: what comes in, what goes out, and how its end is noticed.
#include <algorithm>
#include <utility>

#include "component/ipport.h"

namespace keldwick {
namespace {

constexpr int MaxReadsPerCall = 16;  // 256 KiB; then the caller has its turn again
constexpr int MaxReadRounds = 64;    // before a send, so that a peer that never stops talking cannot hold it up

constexpr const char* ClosedByServer = "The server closed the connection.";

// What Send waits for when there is no room.
enum ROOM_SLOT : DWORD { SLOT_CANCEL, SLOT_SOCKET, SLOT_COUNT };

// The outcome of a call on the socket that moved so many bytes; ifNot: what it is when it would have had to wait.
TLS_ENGINE::RESULT Moved(int count, TLS_ENGINE::RESULT ifNot) {
    if (count >= 0) return TLS_ENGINE::RESULT::Done;
    return WSAGetLastError() == WSAEWOULDBLOCK ? ifNot : TLS_ENGINE::RESULT::Failed;
}

}  // namespace

// Delivers what has arrived: bytes, or else the end of the connection.
void IPPort::ReadAvailable() {
    foundNothing = false;
    if (ending) return Ended(*ending, false);
    if (!Watch(FD_READ | FD_CLOSE)) return LostByLastError();
    const int room = static_cast<int>(buffer.size());
    for (int round = 0; round < MaxReadsPerCall; ++round) {
        int count = 0;
        RESULT result;
        if (tls) {
            result = tls->Read(buffer.data(), room, count);
        } else {
            count = recv(socket, reinterpret_cast<char*>(buffer.data()), room, 0);
            result = count == 0 ? RESULT::Closed : Moved(count, RESULT::WantRead);
        }
        const int code = result != RESULT::Failed ? 0 : tls ? tls->FailureCode() : WSAGetLastError();
        switch (result) {
            case RESULT::Done: {
                const bool maybeMore = tls ? tls->HasBuffered() : count == room;
                FireDataIn(buffer.data(), count);
                if (!maybeMore) return;
                break;
            }
            case RESULT::WantRead:
            case RESULT::WantWrite:
                foundNothing = true;
                // TLS may be able to read on only after it has written.
                if (result == RESULT::WantWrite && !Watch(FD_READ | FD_CLOSE | FD_WRITE)) LostByLastError();
                return;
            case RESULT::Paused:
                return;
            case RESULT::Closed:
                return Ended({0, ClosedByServer}, round > 0);
            case RESULT::Failed:
                return Ended({code, tls ? TlsFailureText() : SocketErrorText(code)}, round > 0);
        }
    }
    if (tls && tls->HasBuffered()) SetEvent(EventHandle());  // the socket does not signal it
}

// Reports the end of the connection. If this call delivered bytes, the report is left to the next call, so that the
// owner can first take an answer from a server that closes after it.
void IPPort::Ended(ENDING how, bool withBytes) {
    if (!withBytes) return Lost(how.code, std::move(how.text));
    ending = std::move(how);
    SetEvent(EventHandle());
}

// Delivers what arrived before a send, and sees a close after it. False: the connection is no longer open.
bool IPPort::NoticeClose() {
    for (int round = 0; round < MaxReadRounds && state == STATE::Open && !foundNothing; ++round) ReadAvailable();
    return state == STATE::Open;
}

int IPPort::Send(const void* bytes, int count) {
    if (state != STATE::Open || bytes == nullptr || count < 0) {
        Remember(state != STATE::Open ? WSAENOTCONN : WSAEINVAL, state != STATE::Open ? "Not connected." : "No bytes.");
        return lastError;
    }
    if (!NoticeClose()) return lastError != 0 ? lastError : WSAECONNRESET;
    foundNothing = false;  // the next call looks again
    const char* next = static_cast<const char*>(bytes);
    CLOCK::time_point end{};  // set when room is first waited for
    while (count > 0) {
        int sent = 0;
        RESULT result;
        if (tls) {
            result = tls->Write(reinterpret_cast<const BYTE*>(next), count, sent);
        } else {
            sent = send(socket, next, count, 0);
            result = Moved(sent, RESULT::WantWrite);
        }
        const int code = result == RESULT::Closed ? WSAECONNRESET : tls ? tls->FailureCode() : WSAGetLastError();
        if (result == RESULT::Done) {
            next += sent;
            count -= sent;
        } else if (result == RESULT::Closed || result == RESULT::Failed) {
            Lost(code, tls && result == RESULT::Failed ? TlsFailureText() : SocketErrorText(code));
            return code;
        } else {
            if (end == CLOCK::time_point{}) end = CLOCK::now() + timeout;
            if (!AwaitRoom(result, end)) return lastError;
        }
    }
    if (end != CLOCK::time_point{}) SetEvent(EventHandle());  // the waits took its signal: ProcessEvents looks again
    return 0;
}

// Waits for the socket to go on. False: it will not; the connection is lost, the error remembered.
bool IPPort::AwaitRoom(RESULT wanted, CLOCK::time_point end) {
    const HANDLE handles[SLOT_COUNT] = {cancelEvent, EventHandle()};
    const DWORD first = cancelEvent != nullptr ? SLOT_CANCEL : SLOT_SOCKET;
    const auto left = std::chrono::ceil<std::chrono::milliseconds>(end - CLOCK::now()).count();
    int code = 0;
    if (Watch(wanted == RESULT::WantWrite ? FD_WRITE | FD_CLOSE : FD_READ | FD_CLOSE)) {
        DWORD signal =
            WaitForMultipleObjects(SLOT_COUNT - first, handles + first, FALSE, left > 0 ? static_cast<DWORD>(left) : 0);
        if (signal < WAIT_OBJECT_0 + SLOT_COUNT) signal += first;
        code = RoomError(signal);
    } else {
        code = WSAGetLastError();
    }
    if (code != 0) Lost(code, SocketErrorText(code));
    return code == 0;
}

// Why a wait for room that ended so was the last one; 0: it was not.
int IPPort::RoomError(DWORD signal) {
    switch (signal) {
        case WAIT_OBJECT_0 + SLOT_CANCEL:
            return WSAECANCELLED;
        case WAIT_OBJECT_0 + SLOT_SOCKET: {
            WSANETWORKEVENTS happened{};
            if (WSAEnumNetworkEvents(socket, EventHandle(), &happened) != 0) return WSAGetLastError();
            return (happened.lNetworkEvents & FD_CLOSE) != 0 ? WSAECONNRESET : 0;
        }
        case WAIT_TIMEOUT:
            return WSAETIMEDOUT;
        default:
            return WSAGetLastError();
    }
}

void IPPort::LostByLastError() {
    const int code = WSAGetLastError();
    Lost(code, SocketErrorText(code));
}

void IPPort::Lost(int code, std::string text) {
    Close();
    Remember(code, std::move(text));
    FireDisconnected(code, lastErrorText.c_str());
}

}  // namespace keldwick
