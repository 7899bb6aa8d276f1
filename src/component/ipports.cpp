#include <winsock2.h>

#include <charconv>
#include <string_view>

#include "component/ipport.h"
#include "component/port_events.h"

namespace keldwick {
namespace {

class SECURE_EVENTS final : public PORT_EVENTS<IPPortS> {
public:
    using PORT_EVENTS::PORT_EVENTS;
    bool Accept(const TLS_PEER& peer) override {
        int accept = peer.trusted ? 1 : 0;
        port.FireSSLServerAuthentication(peer.certificate.data(), static_cast<int>(peer.certificate.size()),
                                         peer.subject.c_str(), peer.issuer.c_str(), peer.status.c_str(), &accept);
        return accept != 0;
    }
    void TlsStatus(const std::string& message) override { port.FireSSLStatus(message.c_str()); }
};

}  // namespace

IPPortS::IPPortS() : TCP_CLIENT(std::make_unique<SECURE_EVENTS>(*this), true) {}
IPPortS::~IPPortS() = default;

int IPPortS::Config(const char* setting) {
    constexpr std::string_view name = "SSLEnabledProtocols=";
    const std::string_view text = setting != nullptr ? setting : "";
    if (!text.starts_with(name)) return WSAEINVAL;
    const std::string_view digits = text.substr(name.size());
    DWORD bits = 0;
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), bits);
    if (error != std::errc() || end != digits.data() + digits.size()) return WSAEINVAL;
    Connection().SetProtocols(bits);
    return 0;
}

int IPPortS::FireConnected(int, const char*) { return 0; }
int IPPortS::FireConnectionStatus(const char*, int, const char*) { return 0; }
int IPPortS::FireDataIn(const BYTE*, int) { return 0; }
int IPPortS::FireDisconnected(int, const char*) { return 0; }
int IPPortS::FireError(int, const char*) { return 0; }
int IPPortS::FireReadyToSend() { return 0; }
int IPPortS::FireSSLServerAuthentication(const BYTE*, int, const char*, const char*, const char*, int*) { return 0; }
int IPPortS::FireSSLStatus(const char*) { return 0; }
int IPPortS::FireExtendedEvent(int, int, void**) { return 0; }

}  // namespace keldwick
