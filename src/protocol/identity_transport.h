// What the plain and the TLS transport have in common: a component whose events become the session's, and one way to
// make an attempt to connect.
#pragma once

#include <windows.h>

#include "component/ipport.h"
#include "platform/format.h"
#include "platform/string.h"
#include "protocol/session_events.h"

namespace keldwick {

class IDENTITY_PROTOCOL;

constexpr int ComponentTimeoutSeconds = 20;
constexpr DWORD ConnectTimeoutSeconds = 20;
constexpr int PlainPort = 1306;
constexpr int SecurePort = 1308;

// The transport that is used or being tried.
enum class TRANSPORT : DWORD { NONE = 0, TLS = 1, PLAIN = 2 };

// What differs between the transports.
struct TRANSPORT_TRAITS {
    TRANSPORT selector;
    int port;
    const WCHAR* name;                               // begins the handlers' messages
    FORMAT<STRING, int> connecting;                  // takes the server and a port
    FORMAT<const WCHAR*, int, STRING> error;         // takes the name, the code and the description
    SESSION_EVENTS (*eventsOfError)(int errorCode);  // of a code that is not 0
};

// BASE is the component. The handlers run inside the component's operations and only tell the session; they return 0.
template <class BASE>
class IDENTITY_TRANSPORT : public BASE {
public:
    int FireConnected(int status, const char* description) override;
    int FireConnectionStatus(const char* event, int status, const char* description) override;
    int FireDataIn(const BYTE* bytes, int count) override;
    int FireDisconnected(int status, const char* description) override;
    int FireError(int code, const char* description) override;
    int FireReadyToSend() override;

protected:
    IDENTITY_TRANSPORT(IDENTITY_PROTOCOL& owner, const TRANSPORT_TRAITS& differences);

    bool ConnectTo(const STRING& server);  // one attempt of up to 20 s

private:
    int Fail(const WCHAR* handler, int status, const char* description);

    IDENTITY_PROTOCOL& session;
    const TRANSPORT_TRAITS& traits;
};

extern template class IDENTITY_TRANSPORT<IPPort>;
extern template class IDENTITY_TRANSPORT<IPPortS>;

}  // namespace keldwick
