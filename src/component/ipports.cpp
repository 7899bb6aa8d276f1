#include "component/ipports.h"

#include <charconv>
#include <string_view>

namespace keldwick {
namespace {

constexpr int CertificateNotAccepted = 280;  // the component's code for a server certificate that was turned down
constexpr const char* NotAcceptedText = "The server's certificate was not accepted.";

}  // namespace

int IPPortS::FireSSLServerAuthentication(const BYTE*, int, const char*, const char*, const char*, int*) { return 0; }

int IPPortS::Config(const char* setting) {
    constexpr std::string_view name = "SSLEnabledProtocols=";
    const std::string_view text = setting != nullptr ? setting : "";
    if (!text.starts_with(name)) return WSAEINVAL;
    const std::string_view digits = text.substr(name.size());
    DWORD bits = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits);
    if (error != std::errc() || end != digits.data() + digits.size()) return WSAEINVAL;
    protocols = bits;
    return 0;
}

bool IPPortS::Step() {
    switch (state) {
        case STATE::Established:
            return StartHandshake();
        case STATE::Handshaking:
            return ContinueHandshake();
        case STATE::Authenticating:
            return Authenticate();
        default:
            return IPPort::Step();
    }
}

bool IPPortS::StartHandshake() {
    std::string reason;
    tls = NewTlsEngine(socket, host, protocols, reason);
    if (!tls) return FailToConnect(WSAECONNABORTED, "TLS cannot be used: " + reason + ".");
    state = STATE::Handshaking;
    FireSSLStatus(("Handshake with " + AttemptText() + " begins").c_str());
    return true;
}

bool IPPortS::ContinueHandshake() {
    LONG awaited = FD_READ | FD_CLOSE;
    switch (tls->Handshake()) {
        case RESULT::Done:
            state = STATE::Authenticating;
            FireSSLStatus(("Handshake done: " + tls->Description()).c_str());
            return true;
        case RESULT::Closed:
            return FailToConnect(WSAECONNRESET,
                                 AttemptText() + ": The server closed the connection in the TLS handshake.");
        case RESULT::Failed:
            return FailToConnect(tls->FailureCode(), AttemptText() + ": " + TlsFailureText());
        case RESULT::WantRead:
        case RESULT::Paused:
            break;
        case RESULT::WantWrite:
            awaited = FD_WRITE;
            break;
    }
    if (CLOCK::now() >= deadline)
        return FailToConnect(WSAETIMEDOUT, AttemptText() + ": The TLS handshake has timed out.");
    if (Watch(awaited)) return false;
    const int code = WSAGetLastError();
    return FailToConnect(code, AttemptText() + ": " + SocketErrorText(code));
}

bool IPPortS::Authenticate() {
    const TLS_PEER peer = tls->Peer();
    int accept = peer.trusted ? 1 : 0;
    FireSSLServerAuthentication(peer.certificate.data(), static_cast<int>(peer.certificate.size()),
                                peer.subject.c_str(), peer.issuer.c_str(), peer.status.c_str(), &accept);
    if (accept != 0) return Opened();
    Close();
    Remember(CertificateNotAccepted, NotAcceptedText);
    FireError(CertificateNotAccepted, NotAcceptedText);
    FireDisconnected(CertificateNotAccepted, NotAcceptedText);
    return false;
}

}  // namespace keldwick
