// The two ways to the identity server, plain TCP and TLS: components whose events become the session's.
#pragma once

#include <windows.h>

#include "component/ipports.h"
#include "platform/format.h"
#include "platform/string.h"

namespace keldwick {

class IDENTITY_PROTOCOL;

constexpr int ComponentTimeoutSeconds = 20;

// The transport that is used or being tried.
enum class TRANSPORT : DWORD { NONE = 0, TLS = 1, PLAIN = 2 };

// What differs between the transports.
struct TRANSPORT_TRAITS {
    TRANSPORT selector;
    int port;
    const WCHAR* name;                        // begins the handlers' messages
    FORMAT<STRING, int> connecting;           // takes the server and a port
    FORMAT<const WCHAR*, int, STRING> error;  // takes the name, the code and the description
    int certificateError;                     // the code for a certificate that was not verified; 0: there is none
};

// What the transports have in common. The base is virtual, because the TLS transport has it from the TLS component,
// too.
class IDENTITY_TRANSPORT : public virtual IPPort {
public:
    int FireConnected(int status, const char* description) override;
    int FireConnectionStatus(const char* event, int status, const char* description) override;
    int FireDataIn(const BYTE* bytes, int count) override;
    int FireDisconnected(int status, const char* description) override;
    int FireError(int code, const char* description) override;
    int FireReadyToSend() override;

protected:
    IDENTITY_TRANSPORT(IDENTITY_PROTOCOL& owner, const TRANSPORT_TRAITS& differences)
        : session(owner), traits(differences) {}

    bool ConnectTo(const STRING& server);  // one attempt of up to 20 s

private:
    int Fail(const WCHAR* handler, int status, const char* description);

    IDENTITY_PROTOCOL& session;
    const TRANSPORT_TRAITS& traits;
};

class IDENTITY_TCP : public IDENTITY_TRANSPORT {
public:
    explicit IDENTITY_TCP(IDENTITY_PROTOCOL& owner);
    bool ConnectPlain(const STRING& server) { return ConnectTo(server); }
};

// Offers TLS 1.1 and 1.2 and accepts every server certificate.
class IDENTITY_TCPS : public IDENTITY_TRANSPORT, public IPPortS {
public:
    explicit IDENTITY_TCPS(IDENTITY_PROTOCOL& owner);
    bool ConnectSecure(const STRING& server) { return ConnectTo(server); }

    int FireSSLServerAuthentication(const BYTE* certificate, int certificateLength, const char* subject,
                                    const char* issuer, const char* status, int* accept) override;
    int FireSSLStatus(const char* message) override;
};

}  // namespace keldwick
