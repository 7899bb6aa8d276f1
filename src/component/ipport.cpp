#include "component/ipport.h"

#include "component/port_events.h"

namespace keldwick {
namespace {

class PLAIN_EVENTS final : public PORT_EVENTS<IPPort> {
public:
    using PORT_EVENTS::PORT_EVENTS;
    bool Accept(const TLS_PEER&) override { return false; }
    void TlsStatus(const std::string&) override {}
};

}  // namespace

TCP_CLIENT::TCP_CLIENT(std::unique_ptr<CONNECTION_EVENTS> events, bool secure)
    : receiver(std::move(events)), connection(std::make_unique<TCP_CONNECTION>(*receiver, secure)) {}
TCP_CLIENT::~TCP_CLIENT() = default;

int TCP_CLIENT::Connect(const char* host, int port) { return connection->Connect(host, port); }
void TCP_CLIENT::Disconnect() { connection->Disconnect(); }
void TCP_CLIENT::ProcessEvents() { connection->ProcessEvents(); }
int TCP_CLIENT::Send(const void* bytes, int count, SEND_LOOK look) { return connection->Send(bytes, count, look); }
void TCP_CLIENT::SetTimeout(int seconds) { connection->SetTimeout(seconds); }
void TCP_CLIENT::SetCancelEvent(HANDLE cancel) { connection->SetCancelEvent(cancel); }
const char* TCP_CLIENT::LastErrorText() const { return connection->LastErrorText(); }
HANDLE TCP_CLIENT::EventHandle() const { return connection->EventHandle(); }

IPPort::IPPort() : TCP_CLIENT(std::make_unique<PLAIN_EVENTS>(*this), false) {}
IPPort::~IPPort() = default;
int IPPort::FireConnected(int, const char*) { return 0; }
int IPPort::FireConnectionStatus(const char*, int, const char*) { return 0; }
int IPPort::FireDataIn(const BYTE*, int) { return 0; }
int IPPort::FireDisconnected(int, const char*) { return 0; }
int IPPort::FireError(int, const char*) { return 0; }
int IPPort::FireReadyToSend() { return 0; }
int IPPort::FireExtendedEvent(int, int, void**) { return 0; }

}  // namespace keldwick
