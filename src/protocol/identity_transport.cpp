#include "protocol/identity_transport.h"

#include "diagnostics/debug_output.h"
#include "protocol/identity_protocol.h"

namespace keldwick {

template <class BASE>
IDENTITY_TRANSPORT<BASE>::IDENTITY_TRANSPORT(IDENTITY_PROTOCOL& owner, const TRANSPORT_TRAITS& differences)
    : session(owner), traits(differences) {}

template <class BASE>
bool IDENTITY_TRANSPORT<BASE>::ConnectTo(const STRING& server) {
    session.BeginConnect(traits.selector);
    DebugPrintMasked(DEBUG_TCP, traits.connecting, server, SecurePort);  // whichever port is meant
    BASE::Connect(STRING_UTF8(server).Text(), traits.port);
    if (session.Wait(ConnectTimeoutSeconds, SESSION_CONNECTED | SESSION_READY_TO_SEND) == WAIT_RESULT::ARRIVED)
        return true;
    BASE::Disconnect();  // the component may still be trying
    return false;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::Fail(const WCHAR* handler, int status, const char* description) {
    DebugPrint(TEXT("%s::%s:\n    StatusCode = %d,\n    Description = %s"), traits.name, handler, status,
               STRING(description));
    session.Set(SESSION_ERROR);
    return 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireConnected(int status, const char* description) {
    if (status != 0) return Fail(TEXT("FireConnected"), status, description);
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireConnected"), traits.name);
    session.Set(SESSION_CONNECTED);
    return 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireConnectionStatus(const char*, int status, const char* description) {
    return status != 0 ? Fail(TEXT("FireConnectionStatus"), status, description) : 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireDataIn(const BYTE* bytes, int count) {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDataIn: Bytes received = %d"), traits.name, count);
    session.DataIn(bytes, count);
    return 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireDisconnected(int, const char*) {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireDisconnected"), traits.name);
    session.Set(SESSION_ERROR | SESSION_DISCONNECTED);
    session.SetDisconnected(true);
    return 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireError(int code, const char* description) {
    DebugPrint(traits.error, traits.name, code, STRING(description));
    if (code != 0) session.Set(traits.eventsOfError(code));
    return 0;
}

template <class BASE>
int IDENTITY_TRANSPORT<BASE>::FireReadyToSend() {
    DebugPrintMasked(DEBUG_TCP, TEXT("%s::FireReadyToSend"), traits.name);
    session.Set(SESSION_READY_TO_SEND);
    return 0;
}

template class IDENTITY_TRANSPORT<IPPort>;
template class IDENTITY_TRANSPORT<IPPortS>;

}  // namespace keldwick
