// The agent's one connection to the identity server: chooses between TLS and plain TCP, connects and reconnects, turns
// the transports' events into bits, and lets its user wait for them with a time-out and with respect for StopEvent.
// One thread uses it; the transports' handlers may call Set and DataIn from any thread.
#pragma once

#include <windows.h>

#include <array>
#include <atomic>
#include <span>
#include <vector>

#include "platform/critical_section.h"
#include "platform/handles.h"
#include "platform/string.h"
#include "protocol/identity_tcp.h"
#include "protocol/identity_tcps.h"
#include "protocol/session_events.h"

namespace keldwick {

// What the session knows of the messages; the rest is the reports'.
constexpr DWORD ResponseLength = 14;
constexpr DWORD IdOffset = 6;  // of the ID, in a request and in its response

// How a wait ended.
enum class WAIT_RESULT : DWORD { STOPPING = 0, FAILED = 1, ARRIVED = 2, TIMED_OUT = 3 };

class IDENTITY_PROTOCOL {
public:
    IDENTITY_PROTOCOL();
    ~IDENTITY_PROTOCOL();
    IDENTITY_PROTOCOL(const IDENTITY_PROTOCOL&) = delete;
    IDENTITY_PROTOCOL& operator=(const IDENTITY_PROTOCOL&) = delete;

    // ---- For its user ----

    // One attempt to connect to the server, by the protocol setting.
    bool Connect(const STRING& server);

    // Connects to the server of the settings, however often it takes. False: the service is to stop.
    bool PersistentConnect();

    // Takes over the server name of the settings; true when it differs, ignoring case, from the one held.
    bool IdentServerChanged();

    // Waits until every wanted bit has arrived, an error has, the seconds have passed, or the service is to stop.
    WAIT_RESULT Wait(DWORD seconds, SESSION_EVENTS wanted);

    // Lets through what happened to the connection since anyone last waited, so that IsDisconnected is up to date.
    void ProcessEvents();

    // Hands a request to the active connection, which ProcessEvents or a connect has just looked at. 0, or the
    // component's error, which LastErrorText describes.
    int Send(const BYTE* request, DWORD length);
    STRING LastErrorText();

    // Waits up to 20 s for the response to the last request and gives every byte received so far, valid until the next
    // call. Bytes that came too late for an earlier request stay and are given in front of the response, but do not
    // count as its beginning: otherwise each response would be taken for that of the next request from then on. When
    // only a part of a response comes, its rest is waited for one second and what came is given.
    // False: nothing came.
    bool ReceiveResponse(std::span<const BYTE>& bytes);

    void Disconnect();  // closes the active connection
    bool IsDisconnected() const { return disconnected; }
    void SetDisconnected(bool value) { disconnected = value; }
    TRANSPORT Selector() const { return selector; }
    const STRING& ServerName() const { return serverName; }

    // ---- For the transports ----

    void Set(SESSION_EVENTS events);
    void DataIn(const void* bytes, int length);
    void BeginConnect(TRANSPORT transport);  // selects the transport and forgets pending events

private:
    TCP_CLIENT& Active();
    bool ConnectByProtocol(const STRING& server);
    bool AwaitNextRound();
    void MakeHandles();
    bool LastRequestAnswered() const;
    bool EndsWithEarlierResponse() const;
    void ExpectRest(bool isNear);
    bool ArmTimer(DWORD milliseconds);
    void Wake();
    DWORD NextSignal();
    bool Woken(SESSION_EVENTS wanted, WAIT_RESULT& result);
    WAIT_RESULT Stopping();

    STRING serverName;
    CRITICAL_SECTION_OWNER lock;  // guards pending, received, owed, incomplete, responseDue and lastRequestId
    IDENTITY_TCPS tls;
    IDENTITY_TCP plain;
    TRANSPORT selector = TRANSPORT::NONE;
    HANDLE_OWNER wakeEvent;
    HANDLE_OWNER timer;
    SESSION_EVENTS pending = 0;
    std::vector<BYTE> received;
    size_t owed = 0;            // bytes of responses to the requests sent over this connection that have not come
    bool incomplete = false;    // what has come since the last request leaves only its rest to wait for
    ULONGLONG responseDue = 0;  // by GetTickCount64, while a response is waited for
    std::array<BYTE, sizeof(DWORD)> lastRequestId{};
    std::vector<BYTE> response;  // handed out by the last ReceiveResponse
    std::atomic<bool> disconnected{true};
    // Which thread is inside ProcessEvents: what it tells the session needs no event to wake it, only the flag.
    std::atomic<const void*> processor{nullptr};
    bool woken = false;
};

extern IDENTITY_PROTOCOL* CurrentSession;  // the one session in use; not owned

}  // namespace keldwick
