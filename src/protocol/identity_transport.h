// What the plain and the TLS transport have in common: a component whose events become the session's.
#pragma once

#include <windows.h>

#include "component/ipport.h"
#include "diagnostics/debug_output.h"
#include "platform/string.h"
#include "protocol/session_events.h"

namespace keldwick {

class IDENTITY_PROTOCOL;

constexpr int ComponentTimeoutSeconds = 20;
constexpr DWORD ConnectTimeoutSeconds = 20;
constexpr DWORD ResponseTimeoutSeconds = 20;

// The session's operations that the handlers need, declared here because the session holds the transports as members.
void SetSessionEvents(IDENTITY_PROTOCOL& session, SESSION_EVENTS events);
void GiveSessionData(IDENTITY_PROTOCOL& session, const void* bytes, int length);
void MarkSessionDisconnected(IDENTITY_PROTOCOL& session);

// BASE is the component; the derived class's NAME begins the messages.
template <class BASE>
class IDENTITY_TRANSPORT : public BASE {
public:
    IDENTITY_TRANSPORT(IDENTITY_PROTOCOL& owner, const WCHAR* className) : session(owner), name(className) {}

    int FireConnected(int statusCode, const char* description) override {
        if (statusCode != 0) return Fail(TEXT("FireConnected"), statusCode, description);
        DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireConnected"), name);
        SetSessionEvents(session, SESSION_CONNECTED);
        return 0;
    }
    int FireConnectionStatus(const char*, int statusCode, const char* description) override {
        return statusCode != 0 ? Fail(TEXT("FireConnectionStatus"), statusCode, description) : 0;
    }
    int FireDataIn(const char* bytes, int length) override {
        DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDataIn: Bytes received = %d"), name, length);
        GiveSessionData(session, bytes, length);
        return 0;
    }
    int FireDisconnected(int, const char*) override {
        DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDisconnected"), name);
        SetSessionEvents(session, SESSION_ERROR | SESSION_DISCONNECTED);
        MarkSessionDisconnected(session);
        return 0;
    }
    int FireReadyToSend() override {
        DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireReadyToSend"), name);
        SetSessionEvents(session, SESSION_READY_TO_SEND);
        return 0;
    }

protected:
    int Fail(const WCHAR* handler, int statusCode, const char* description) {
        DebugPrint(TEXT("%s::%s:\n    StatusCode = %d,\n    Description = %s"), name, handler, statusCode,
                   STRING(description));
        SetSessionEvents(session, SESSION_ERROR);
        return 0;
    }

    IDENTITY_PROTOCOL& session;
    const WCHAR* const name;
};

}  // namespace keldwick
