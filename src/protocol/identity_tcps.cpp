#include "protocol/identity_tcps.h"

#include "diagnostics/debug_output.h"

namespace keldwick {

namespace {

constexpr DWORD EnabledProtocols = 0x0F00;   // TLS 1.1 (0x300) and TLS 1.2 (0xC00), client and server bits
constexpr int CertificateNotVerified = 280;  // the component's code

SESSION_EVENTS EventsOfError(int code) {
    return code == CertificateNotVerified ? SESSION_CERTIFICATE_ERROR : SESSION_ERROR;
}

const TRANSPORT_TRAITS Secure = {
    .selector = TRANSPORT::TLS,
    .port = SecurePort,
    .name = TEXT("IDENTITY_TCPS"),
    .connecting = TEXT("Connecting to Identity server = %s:%u (secure) ..."),
    .error = TEXT("%s::FireError:\n    ErrorCode = %d,\n    Description = %s"),
    .eventsOfError = EventsOfError,
};

}  // namespace

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
