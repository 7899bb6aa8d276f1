// The events that both variants of the client have, handed to the handlers of the same names.
#pragma once

#include "component/tcp_connection.h"

namespace keldwick {

template <typename PORT>
class PORT_EVENTS : public CONNECTION_EVENTS {
public:
    explicit PORT_EVENTS(PORT& owner) : port(owner) {}  // the owner outlives it
    void Connected(int status, const char* text) override { port.FireConnected(status, text); }
    void ConnectionStatus(const char* what, int status, const char* text) override {
        port.FireConnectionStatus(what, status, text);
    }
    void DataIn(const BYTE* bytes, int count) override { port.FireDataIn(bytes, count); }
    void Disconnected(int status, const char* text) override { port.FireDisconnected(status, text); }
    void Error(int code, const char* text) override { port.FireError(code, text); }
    void ReadyToSend() override { port.FireReadyToSend(); }

protected:
    PORT& port;
};

}  // namespace keldwick
