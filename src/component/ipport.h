// The TCP client (IPPort) and its TLS variant (IPPortS): event-driven, without threads of their own. One derives from
// them, overrides the handlers of interest, and calls ProcessEvents whenever EventHandle is signalled. All calls on one
// object come from one thread at a time; handlers run inside ProcessEvents, Send and Disconnect, and may call any
// operation of the object. Texts are UTF-8. Error and status codes are Winsock's, 0 is success.
#pragma once

#include <windows.h>

#include "component/send_look.h"

#include <memory>

namespace keldwick {

class CONNECTION_EVENTS;
class TCP_CONNECTION;

// What both variants can do. Holds one connection at most.
class TCP_CLIENT {
public:
    TCP_CLIENT(const TCP_CLIENT&) = delete;
    TCP_CLIENT& operator=(const TCP_CLIENT&) = delete;

    // Starts connecting to a name or an address; an earlier connection is closed without an event. The outcome comes as
    // events within the time-out: Connected (0) and ReadyToSend, or else Connected with a code, or Error 280 and
    // Disconnected when the certificate was not accepted. The result is 0 when the attempt has begun; when it has not,
    // the code comes as an event all the same.
    int Connect(const char* host, int port);

    // Closes the connection or gives up the attempt. Disconnected follows at once if Connected (0) came before.
    void Disconnect();

    // Delivers what has happened, and never waits. An end of the connection right behind bytes is left to the next call
    // (or to Send), so that the bytes can be taken first.
    void ProcessEvents();

    // Hands all the bytes to the connection, waiting at most the time-out for room. Otherwise the result is an error
    // code, LastErrorText describes it, and the connection is closed (Disconnected has been delivered). A close by the
    // peer that arrived before the call is such an error: nothing has been sent then.
    // A caller that has called ProcessEvents just before spares itself the look for a close.
    int Send(const void* bytes, int count, SEND_LOOK look = SEND_LOOK::FIRST);

    // Bounds connecting (the TLS handshake included), Send's wait, and how long a vanished peer stays unnoticed. At
    // first 20.
    void SetTimeout(int seconds);

    // While this event is signalled, Send does not wait for room: WSAECANCELLED. The caller's; null: no such event.
    void SetCancelEvent(HANDLE cancel);

    // Ends with a period; empty when nothing has failed yet. Valid until the next operation.
    const char* LastErrorText() const;

    // Signalled while ProcessEvents has something to deliver. It lives as long as the object: the caller waits on it
    // and does nothing else with it. Null when the system had no event to give; then Connect fails.
    HANDLE EventHandle() const;

protected:
    TCP_CLIENT(std::unique_ptr<CONNECTION_EVENTS> events, bool secure);
    ~TCP_CLIENT();  // closes without events

    TCP_CONNECTION& Connection() { return *connection; }

private:
    std::unique_ptr<CONNECTION_EVENTS> receiver;
    std::unique_ptr<TCP_CONNECTION> connection;
};

// Plain TCP. The handlers here do nothing and return 0.
class IPPort : public TCP_CLIENT {
public:
    IPPort();

    virtual int FireConnected(int status, const char* description);
    virtual int FireConnectionStatus(const char* event, int status, const char* description);
    virtual int FireDataIn(const BYTE* bytes, int count);
    virtual int FireDisconnected(int status, const char* description);
    virtual int FireError(int code, const char* description);
    virtual int FireReadyToSend();
    virtual int FireExtendedEvent(int event, int count, void** parameters);
    virtual ~IPPort();
};

// TLS over TCP.
class IPPortS : public TCP_CLIENT {
public:
    IPPortS();

    // One setting, "NAME=VALUE". "SSLEnabledProtocols" is a decimal set of protocol bits (TLS 1.0: 0xC0, 1.1: 0x300,
    // 1.2: 0xC00, 1.3: 0x3000), which holds from the next Connect on; at first 1.2 alone. Otherwise an error code.
    int Config(const char* setting);

    virtual int FireConnected(int status, const char* description);
    virtual int FireConnectionStatus(const char* event, int status, const char* description);
    virtual int FireDataIn(const BYTE* bytes, int count);
    virtual int FireDisconnected(int status, const char* description);
    virtual int FireError(int code, const char* description);
    virtual int FireReadyToSend();
    // certificate: DER, certificateLength bytes. status: how the check of the certificate ended. *accept: whether the
    // connection is to go on; preset to the check's result. Left 0, Error 280 and Disconnected follow.
    virtual int FireSSLServerAuthentication(const BYTE* certificate, int certificateLength, const char* subject,
                                            const char* issuer, const char* status, int* accept);
    virtual int FireSSLStatus(const char* message);
    virtual int FireExtendedEvent(int event, int count, void** parameters);
    virtual ~IPPortS();
};

}  // namespace keldwick
