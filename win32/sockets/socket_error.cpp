#include "win32/sockets/socket_error.h"

#include <netdb.h>
#include <winsock2.h>

#include <cerrno>

namespace win32 {
namespace {

constexpr int SystemCallFailure = 10107;       // WSASYSCALLFAILURE
constexpr int SocketTypeNotSupported = 10044;  // WSAESOCKTNOSUPPORT
constexpr int ServiceNotFound = 10109;         // WSATYPE_NOT_FOUND

struct NUMBER_PAIR {
    int ours;
    int winsock;
};

constexpr NUMBER_PAIR errnoTable[] = {
    {EINTR, WSAEINTR},
    {EACCES, WSAEACCES},
    {EPERM, WSAEACCES},
    {EFAULT, WSAEFAULT},
    {EINVAL, WSAEINVAL},
    {EMFILE, WSAEMFILE},
    {ENFILE, WSAEMFILE},
    {EAGAIN, WSAEWOULDBLOCK},
    {EINPROGRESS, WSAEINPROGRESS},
    {EBADF, WSAENOTSOCK},
    {ENOTSOCK, WSAENOTSOCK},
    {EMSGSIZE, WSAEMSGSIZE},
    {EAFNOSUPPORT, WSAEAFNOSUPPORT},
    {EADDRINUSE, WSAEADDRINUSE},
    {EADDRNOTAVAIL, WSAEADDRNOTAVAIL},
    {ENETDOWN, WSAENETDOWN},
    {ENETUNREACH, WSAENETUNREACH},
    {ENETRESET, WSAENETRESET},
    {ECONNABORTED, WSAECONNABORTED},
    {ECONNRESET, WSAECONNRESET},
    {EPIPE, WSAECONNRESET},  // Windows knows no broken pipe on a socket
    {ENOBUFS, WSAENOBUFS},
    {ENOMEM, WSAENOBUFS},
    {EISCONN, WSAEISCONN},
    {ENOTCONN, WSAENOTCONN},
    {ESHUTDOWN, WSAESHUTDOWN},
    {ETIMEDOUT, WSAETIMEDOUT},
    {ECONNREFUSED, WSAECONNREFUSED},
    {EHOSTDOWN, WSAEHOSTDOWN},
    {EHOSTUNREACH, WSAEHOSTUNREACH},
};

constexpr NUMBER_PAIR lookupTable[] = {
    {EAI_AGAIN, WSATRY_AGAIN},
    {EAI_NONAME, WSAHOST_NOT_FOUND},
    {EAI_FAIL, WSANO_RECOVERY},
    {EAI_FAMILY, WSAEAFNOSUPPORT},
    {EAI_BADFLAGS, WSAEINVAL},
    {EAI_SOCKTYPE, SocketTypeNotSupported},
    {EAI_SERVICE, ServiceNotFound},
    {EAI_MEMORY, ERROR_NOT_ENOUGH_MEMORY},
    {EAI_OVERFLOW, ERROR_INSUFFICIENT_BUFFER},
#ifdef EAI_NODATA
    {EAI_NODATA, WSANO_DATA},
#endif
};

}  // namespace

int SocketErrorFromErrno(int number) {
    for (const NUMBER_PAIR& pair : errnoTable)
        if (pair.ours == number) return pair.winsock;
    return SystemCallFailure;
}

int SocketErrorFromLookup(int result, int errorNumber) {
    if (result == 0) return 0;
    if (result == EAI_SYSTEM) return SocketErrorFromErrno(errorNumber);
    for (const NUMBER_PAIR& pair : lookupTable)
        if (pair.ours == result) return pair.winsock;
    return WSANO_RECOVERY;
}

int FailSocketCall(int code) {
    SetLastError(static_cast<DWORD>(code));
    return SOCKET_ERROR;
}

int FailLookup(int code) {
    SetLastError(static_cast<DWORD>(code));
    return code;
}

}  // namespace win32
