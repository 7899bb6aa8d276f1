// Sockets, and the events that they signal. The C library does the work; here its errors become Winsock's.
#include <fcntl.h>
#include <mstcpip.h>
#include <poll.h>
#include <unistd.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cerrno>
#include <iterator>

#include "win32/sockets/socket_error.h"
#include "win32/sync/kernel_object.h"

#undef send
#undef recv
#undef setsockopt

namespace {

// What a condition is to poll. No two have the same bits, so that what was selected for an event can be read from its
// bits.
struct CONDITION {
    LONG mask;
    short bits;
};
constexpr CONDITION Conditions[] = {
    {FD_READ, POLLIN}, {FD_CLOSE, POLLRDHUP}, {FD_WRITE, POLLOUT}, {FD_CONNECT, POLLWRNORM}};
constexpr short Ended = POLLHUP | POLLERR;  // poll reports them unasked

int FailWithErrno() { return win32::FailSocketCall(win32::SocketErrorFromErrno(errno)); }

// Calls until no signal interrupts it.
template <typename CALL>
int Uninterrupted(CALL call) {
    ssize_t result;
    do {
        result = call();
    } while (result < 0 && errno == EINTR);
    return result < 0 ? FailWithErrno() : static_cast<int>(result);
}

int SetOption(SOCKET socket, int level, int name, const void* value, int length) {
    return ::setsockopt(socket, level, name, value, static_cast<socklen_t>(length)) == 0 ? 0 : FailWithErrno();
}

int SetNumber(SOCKET socket, int level, int name, int value) {
    return SetOption(socket, level, name, &value, sizeof(value));
}

bool MakeNonBlocking(SOCKET socket) {
    const int flags = fcntl(socket, F_GETFL);
    return flags >= 0 && ((flags & O_NONBLOCK) != 0 || fcntl(socket, F_SETFL, flags | O_NONBLOCK) == 0);
}

}  // namespace

SOCKET WINAPI WSASocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, unsigned group, DWORD) {
    if (info != nullptr || group != 0) {
        WSASetLastError(WSAEINVAL);
        return INVALID_SOCKET;
    }
    const SOCKET made = ::socket(family, type | SOCK_CLOEXEC, protocol);
    if (made < 0) FailWithErrno();
    return made;
}

int WINAPI closesocket(SOCKET socket) { return close(socket) == 0 || errno == EINTR ? 0 : FailWithErrno(); }

int WINAPI WSAConnect(SOCKET socket, const SOCKADDR* address, int length, LPWSABUF, LPWSABUF, LPQOS, LPQOS) {
    if (connect(socket, address, static_cast<socklen_t>(length)) == 0) return 0;
    return errno == EINPROGRESS || errno == EINTR ? win32::FailSocketCall(WSAEWOULDBLOCK) : FailWithErrno();
}

int WINAPI win32_send(SOCKET socket, const void* bytes, size_t count, int flags) {
    return Uninterrupted([=] { return ::send(socket, bytes, count, flags | MSG_NOSIGNAL); });
}

int WINAPI win32_recv(SOCKET socket, void* buffer, size_t count, int flags) {
    return Uninterrupted([=] { return ::recv(socket, buffer, count, flags); });
}

int WINAPI win32_setsockopt(SOCKET socket, int level, int name, const void* value, int length) {
    if (level != IPPROTO_TCP || name != TCP_MAXRT) return SetOption(socket, level, name, value, length);
    if (value == nullptr || length != sizeof(int)) return win32::FailSocketCall(WSAEFAULT);
    return SetNumber(socket, IPPROTO_TCP, TCP_USER_TIMEOUT, *static_cast<const int*>(value) * 1000);
}

int WINAPI WSAIoctl(SOCKET socket, DWORD code, LPVOID input, DWORD inputBytes, LPVOID, DWORD, LPDWORD bytes,
                    LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine) {
    if (code != SIO_KEEPALIVE_VALS || overlapped != nullptr || routine != nullptr)
        return win32::FailSocketCall(WSAEOPNOTSUPP);
    if (input == nullptr || inputBytes < sizeof(tcp_keepalive) || bytes == nullptr)
        return win32::FailSocketCall(WSAEFAULT);
    *bytes = 0;
    const auto& wanted = *static_cast<const tcp_keepalive*>(input);
    const auto seconds = [](ULONG milliseconds) { return std::max(1, static_cast<int>(milliseconds / 1000)); };
    if (SetNumber(socket, SOL_SOCKET, SO_KEEPALIVE, wanted.onoff != 0) != 0) return SOCKET_ERROR;
    if (wanted.onoff == 0) return 0;
    if (SetNumber(socket, IPPROTO_TCP, TCP_KEEPIDLE, seconds(wanted.keepalivetime)) != 0) return SOCKET_ERROR;
    return SetNumber(socket, IPPROTO_TCP, TCP_KEEPINTVL, seconds(wanted.keepaliveinterval));
}

int WINAPI WSAEventSelect(SOCKET socket, WSAEVENT event, LONG mask) {
    const auto object = win32::ObjectOf(event);
    if (!object) return win32::FailSocketCall(WSAEINVAL);
    if (mask != 0 && !MakeNonBlocking(socket)) return FailWithErrno();
    short bits = 0;
    for (const CONDITION& condition : Conditions)
        if (mask & condition.mask) bits = static_cast<short>(bits | condition.bits);
    if (!win32::SetEventCompanion(*object, mask == 0 ? -1 : socket, bits)) return win32::FailSocketCall(WSAEINVAL);
    return 0;
}

int WINAPI WSAEnumNetworkEvents(SOCKET socket, WSAEVENT event, LPWSANETWORKEVENTS happened) {
    if (happened == nullptr) return win32::FailSocketCall(WSAEFAULT);
    const auto object = win32::ObjectOf(event);
    if (!object || socket < 0 || object->Companion().fd != socket) return win32::FailSocketCall(WSAEINVAL);
    *happened = {};
    ResetEvent(event);
    const short selected = object->Companion().events;
    pollfd polled{socket, selected, 0};
    if (poll(&polled, 1, 0) <= 0) return 0;
    int error = 0;
    socklen_t length = sizeof(error);
    if (selected & (POLLWRNORM | POLLRDHUP)) getsockopt(socket, SOL_SOCKET, SO_ERROR, &error, &length);
    for (const CONDITION& condition : Conditions)
        if ((selected & condition.bits) && (polled.revents & (condition.bits | Ended)))
            happened->lNetworkEvents |= condition.mask;
    if (error != 0)
        std::fill(std::begin(happened->iErrorCode), std::end(happened->iErrorCode), win32::SocketErrorFromErrno(error));
    return 0;
}
