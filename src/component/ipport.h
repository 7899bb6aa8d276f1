// The TCP client: one connection as a state machine that ProcessEvents moves on, written against Winsock. One derives
// from it, overrides the handlers of interest, and calls ProcessEvents whenever EventHandle is signalled or WaitLimit
// has passed. IPPortS (ipports.h) adds TLS.
//
// Threads: all calls on one object come from one thread at a time, and the handlers run on that thread, inside
// ProcessEvents, Send and Disconnect. Each is the last act of a step: the object is in its new state by then, and a
// connection that has ended is closed. A handler must not call the object. (The names of hosts are looked up on threads
// that touch nothing but their own result.)
//
// Texts are UTF-8. Error and status codes are Winsock's, 0 is success. Handlers return 0.
#pragma once

#include <winsock2.h>

#include <array>
#include <chrono>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "component/name_lookup.h"
#include "component/tls_engine.h"
#include "platform/handles.h"

namespace keldwick {

class IPPort {
public:
    IPPort();
    virtual ~IPPort();  // closes without events
    IPPort(const IPPort&) = delete;
    IPPort& operator=(const IPPort&) = delete;

    // Starts connecting to a name or an address; an earlier connection is closed without an event. The outcome comes as
    // events within the time-out: Connected (0) and ReadyToSend, or else Connected with a code, or Error 280 and
    // Disconnected when the certificate was not accepted. The result is 0 when the attempt has begun; when it has not,
    // the code comes as an event all the same.
    int Connect(const char* host, int port);

    // Closes the connection or gives up the attempt. Disconnected follows at once if Connected (0) came before.
    void Disconnect();

    // Delivers what has happened, and never waits. An end of the connection that arrived with bytes is left to the next
    // call (or to Send), so that the bytes can be taken first.
    void ProcessEvents();

    // Hands all the bytes to the connection, waiting at most the time-out for room. Otherwise the result is an error
    // code, LastErrorText describes it, and the connection is closed (Disconnected has been delivered). Call
    // ProcessEvents just before, so that nothing is sent to a peer that has closed. What that leaves to be read is read
    // here first, and a close after it is such an error.
    int Send(const void* bytes, int count);

    // Bounds connecting (the TLS handshake included), Send's wait, and how long a vanished peer stays unnoticed. At
    // first 20.
    void SetTimeout(int seconds);

    // While this event is signalled, Send does not wait for room: WSAECANCELLED. The caller's; null: no such event.
    void SetCancelEvent(HANDLE cancel) { cancelEvent = cancel; }

    // Ends with a period; empty when nothing has failed yet. Valid until the next operation.
    const char* LastErrorText() const { return lastErrorText.c_str(); }

    // Signalled while ProcessEvents has something to deliver. It lives as long as the object: the caller waits on it
    // and does nothing else with it. Null when the system had no event to give; then Connect fails.
    HANDLE EventHandle() const { return event ? event->Get() : nullptr; }

    // The milliseconds after which ProcessEvents has something to do although the event is not signalled; INFINITE
    // while a connection is open or there is none.
    DWORD WaitLimit() const;

    virtual int FireConnected(int, const char*) { return 0; }                      // status, description
    virtual int FireConnectionStatus(const char*, int, const char*) { return 0; }  // event, status, description
    virtual int FireDataIn(const BYTE*, int) { return 0; }                         // valid during the call, and count
    virtual int FireDisconnected(int, const char*) { return 0; }                   // status, description
    virtual int FireError(int, const char*) { return 0; }                          // code, description
    virtual int FireReadyToSend() { return 0; }

protected:
    // ---- For the TLS variant ----

    using CLOCK = std::chrono::steady_clock;
    using RESULT = TLS_ENGINE::RESULT;
    enum class STATE { Idle, Failed, Resolving, Connecting, Established, Handshaking, Authenticating, Open };

    virtual bool Step();  // whether the next step can be taken at once
    bool Opened();
    bool FailToConnect(int code, std::string text);
    bool Watch(LONG mask);  // false: the reason is the last error
    std::string AttemptText() const;
    std::string TlsFailureText() const;
    void Remember(int code, std::string text);
    void Close();

    STATE state = STATE::Idle;
    SOCKET socket = INVALID_SOCKET;
    std::string host;  // for TLS
    CLOCK::time_point deadline;
    std::unique_ptr<TLS_ENGINE> tls;  // null: plain TCP

private:
    struct ENDING {
        int code;
        std::string text;
    };

    int Begin(const std::string& hostText, int port);
    bool MakeEvent();
    bool TakeAddresses();
    bool TryNextAddress();
    bool StartAttempt();
    bool FinishAttempt();
    void ApplySocketOptions() const;
    void CloseSocket();

    void ReadAvailable();
    void Ended(ENDING how, bool withBytes);
    bool NoticeClose();
    bool AwaitRoom(RESULT wanted, CLOCK::time_point end);
    int RoomError(DWORD signal);
    void Lost(int code, std::string text);
    void LostByLastError();

    std::chrono::seconds timeout{20};
    std::shared_ptr<HANDLE_OWNER> event;  // shared with the look-ups, which may outlive the object
    HANDLE cancelEvent = nullptr;         // the owner's
    LONG watched = 0;                     // the conditions of the socket that signal the event

    std::shared_ptr<NAME_LOOKUP> lookup;
    std::vector<SOCKET_ADDRESS> addresses;
    size_t nextAddress = 0;
    CLOCK::time_point attemptDeadline;

    std::optional<ENDING> ending;    // it came with bytes that were delivered; the next call reports it
    bool foundNothing = false;       // the last look at the socket found neither bytes nor an end
    std::array<BYTE, 16384> buffer;  // the most that one TLS record holds

    int lastError = 0;
    std::string lastErrorText;
};

// One sentence with its period for a Winsock code that a connection can meet.
std::string SocketErrorText(int code);

}  // namespace keldwick
