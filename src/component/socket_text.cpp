#include "component/socket_text.h"

#include <winsock2.h>

namespace keldwick {
namespace {

struct CODE_TEXT {
    int code;
    const char* text;
};

constexpr CODE_TEXT texts[] = {
    {WSAEACCES, "Permission denied."},
    {WSAEMFILE, "Too many open sockets."},
    {WSAEAFNOSUPPORT, "The address family is not supported."},
    {WSAEADDRNOTAVAIL, "The address is not available."},
    {WSAENETDOWN, "The network is down."},
    {WSAENETUNREACH, "The network is unreachable."},
    {WSAECONNABORTED, "The connection was aborted."},
    {WSAECONNRESET, "The connection was reset by the server."},
    {WSAENOBUFS, "No buffer space is available."},
    {WSAENOTCONN, "Not connected."},
    {WSAETIMEDOUT, "The connection has timed out."},
    {WSAECONNREFUSED, "The connection was refused."},
    {WSAEHOSTDOWN, "The host is down."},
    {WSAEHOSTUNREACH, "The host is unreachable."},
    {WSAECANCELLED, "The wait was called off."},
    {WSAHOST_NOT_FOUND, "The host was not found."},
    {WSATRY_AGAIN, "The name server did not answer."},
    {WSANO_RECOVERY, "The name server failed."},
    {WSANO_DATA, "The host has no address."},
};

}  // namespace

std::string SocketErrorText(int code) {
    for (const CODE_TEXT& entry : texts)
        if (entry.code == code) return entry.text;
    return "Socket error " + std::to_string(code) + ".";
}

std::string FailureSentence(const TLS_ENGINE& engine) {
    if (engine.FailureText().empty()) return SocketErrorText(engine.FailureCode());
    return engine.FailureText() + ".";
}

}  // namespace keldwick
