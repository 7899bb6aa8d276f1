#include "protocol/identity_transports.h"

#include "diagnostics/debug_output.h"
#include "protocol/identity_protocol.h"
#include "service/settings.h"

namespace keldwick {

namespace {

constexpr DWORD ConnectTimeoutSeconds = 20;
constexpr DWORD EnabledProtocols = 0x0F00;   // TLS 1.1 (0x300) and TLS 1.2 (0xC00), client and server bits
constexpr int CertificateNotVerified = 280;  // the component's code

const TRANSPORT_TRAITS Plain = {
    .selector = TRANSPORT::PLAIN,
    .port = PlainPort,
    .name = TEXT("IDENTITY_TCP"),
    .connecting = TEXT("Connecting to Identity server = %s:%u ..."),
    .error = TEXT("%s::FireError:\n    Error code = %d,\n    Description = %s"),
    .certificateError = 0,
};

const TRANSPORT_TRAITS Secure = {
    .selector = TRANSPORT::TLS,
    .port = SecurePort,
    .name = TEXT("IDENTITY_TCPS"),
    .connecting = TEXT("Connecting to Identity server = %s:%u (secure) ..."),
    .error = TEXT("%s::FireError:\n    ErrorCode = %d,\n    Description = %s"),
    .certificateError = CertificateNotVerified,
};

}  // namespace

bool IDENTITY_TRANSPORT::ConnectTo(const STRING& server) {
    session.BeginConnect(traits.selector);
    DebugPrintMasked(DEBUG_TCP, traits.connecting, server, SecurePort);  // whichever port is meant
    Connect(STRING_UTF8(server).Text(), traits.port);
    if (session.Wait(ConnectTimeoutSeconds, SESSION_CONNECTED | SESSION_READY_TO_SEND) == WAIT_RESULT::ARRIVED)
        return true;
    Disconnect();  // the component may still be trying
    return false;
}

int IDENTITY_TRANSPORT::Fail(const WCHAR* handler, int status, const char* description) {
    DebugPrint(TEXT("%s::%s:\n    StatusCode = %d,\n    Description = %s"), traits.name, handler, status,
               STRING(description));
    session.Set(SESSION_ERROR);
    return 0;
}

int IDENTITY_TRANSPORT::FireConnected(int status, const char* description) {
    if (status != 0) return Fail(TEXT("FireConnected"), status, description);
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireConnected"), traits.name);
    session.Set(SESSION_CONNECTED);
    return 0;
}

int IDENTITY_TRANSPORT::FireConnectionStatus(const char*, int status, const char* description) {
    return status != 0 ? Fail(TEXT("FireConnectionStatus"), status, description) : 0;
}

int IDENTITY_TRANSPORT::FireDataIn(const BYTE* bytes, int count) {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDataIn: Bytes received = %d"), traits.name, count);
    session.DataIn(bytes, count);
    return 0;
}

int IDENTITY_TRANSPORT::FireDisconnected(int, const char*) {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDisconnected"), traits.name);
    session.Set(SESSION_ERROR | SESSION_DISCONNECTED);
    session.SetDisconnected(true);
    return 0;
}

int IDENTITY_TRANSPORT::FireError(int code, const char* description) {
    DebugPrint(traits.error, traits.name, code, STRING(description));
    if (code != 0) session.Set(code == traits.certificateError ? SESSION_CERTIFICATE_ERROR : SESSION_ERROR);
    return 0;
}

int IDENTITY_TRANSPORT::FireReadyToSend() {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireReadyToSend"), traits.name);
    session.Set(SESSION_READY_TO_SEND);
    return 0;
}

IDENTITY_TCP::IDENTITY_TCP(IDENTITY_PROTOCOL& owner) : IDENTITY_TRANSPORT(owner, Plain) {}

IDENTITY_TCPS::IDENTITY_TCPS(IDENTITY_PROTOCOL& owner) : IDENTITY_TRANSPORT(owner, Secure) {
    STRING_UTF8 setting;
    setting.Format("SSLEnabledProtocols=%u", EnabledProtocols);
    Config(setting.Text());
}

int IDENTITY_TCPS::FireSSLServerAuthentication(const BYTE*, int, const char* subject, const char* issuer,
                                               const char* status, int* accept) {
    DebugPrintMasked(DEBUG_TCP,
                     TEXT("IDENTITY_TCPS::FireSSLServerAuthentication:\n    CertSubject = %s,\n    CertIssuer = %s,\n  "
                          "  Status = %s,\n    Accept = %d"),
                     STRING(subject), STRING(issuer), STRING(status), *accept);
    if (*accept == 0) {
        DebugPrintMasked(DEBUG_TCP,
                         TEXT("IDENTITY_TCPS::FireSSLServerAuthentication: Accepting non-recommended connection"));
        *accept = 1;
    }
    return 0;
}

int IDENTITY_TCPS::FireSSLStatus(const char* message) {
    DebugPrintMasked(DEBUG_TCP, TEXT("IDENTITY_TCPS::FireSSLStatus: %s"), STRING(message));
    return 0;
}

}  // namespace keldwick
