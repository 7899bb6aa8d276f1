// The agent's one connection to the identity server: chooses between TLS and plain TCP, connects and reconnects, turns
// the transports' events into bits, and lets its user wait for them with a time-out and with respect for StopEvent.
// One thread uses it, and the transports' handlers run on that thread. Set and DataIn may be called on any thread: a
// lock guards what they change, and where the user is waiting they wake it by an event.
#pragma once

#include <windows.h>

#include <atomic>
#include <span>
#include <vector>

#include "platform/handles.h"
#include "platform/string.h"
#include "protocol/identity_request.h"
#include "protocol/identity_transports.h"

namespace keldwick {

// What can happen to the connection, as a set of bits that a wait is for.
using SESSION_EVENTS = DWORD;
constexpr SESSION_EVENTS SESSION_ERROR = 0x01;
constexpr SESSION_EVENTS SESSION_CONNECTED = 0x02;
constexpr SESSION_EVENTS SESSION_READY_TO_SEND = 0x04;
constexpr SESSION_EVENTS SESSION_DATA_IN = 0x08;
constexpr SESSION_EVENTS SESSION_DISCONNECTED = 0x10;
constexpr SESSION_EVENTS SESSION_CERTIFICATE_ERROR = 0x20;

// The names of the bits, joined by a comma and a blank; empty for no bits. The text lives as long as the process.
const WCHAR* EventNames(SESSION_EVENTS events);

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

    // Waits up to 20 s for the response to the last request, and gives every byte received so far, valid until the next
    // call. False: nothing came.
    // Bytes of an earlier response that came too late are given before the response, but are not taken for it:
    // otherwise each response would be taken for that of the next request from then on. So a response that comes late
    // or in pieces, however far apart, fails its own report and the next one. If the time is up while an earlier
    // response is incomplete, what came is given.
    // The wait is cut to one second by an earlier response that was no longer expected, and by a piece of one from a
    // server that has once left a response incomplete and has not sent a whole one since.
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
    IPPort& Active();
    bool ConnectByProtocol(const STRING& server);
    bool AwaitNextRound();
    void MakeHandles();
    void CountReceived(size_t count);
    bool LastRequestAnswered() const;
    bool EndsWithEarlierResponse() const;
    void Wake();
    bool ArmTimer(DWORD seconds);
    DWORD NextSignal();
    bool IsNear();
    bool Woken(SESSION_EVENTS wanted, WAIT_RESULT& result);
    WAIT_RESULT Stopping();

    STRING serverName;
    CRITICAL_SECTION_OWNER lock;  // guards what is said to be below
    IDENTITY_TCPS tls;
    IDENTITY_TCP plain;
    TRANSPORT selector = TRANSPORT::NONE;
    HANDLE_OWNER wakeEvent;
    HANDLE_OWNER timer;
    std::vector<BYTE> response;  // given by the last ReceiveResponse
    std::atomic<bool> disconnected{true};
    std::atomic<bool> isReceiving{false};  // the user waits for a response
    std::atomic<bool> isWaiting{false};    // the user, for the wake event among others; becomes true under the lock

    // ---- Under the lock ----
    SESSION_EVENTS pending = 0;
    bool woken = false;  // something was added since the user last looked
    std::vector<BYTE> received;
    DWORD lastRequestId = 0;
    size_t owed = 0;                // bytes of responses to the requests sent over this connection that have not come
    bool incomplete = false;        // an earlier response has come in part, or once more
    bool isNear = false;            // the wait for what is missing is one second
    bool leavesUnfinished = false;  // the server has left a response incomplete, and sent no whole one since
};

extern IDENTITY_PROTOCOL* CurrentSession;  // the one session in use; not owned

}  // namespace keldwick
