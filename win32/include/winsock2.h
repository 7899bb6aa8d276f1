// Windows Sockets, as far as the agent calls them. Socket addresses are the platform's own; the family numbers too.
// The C library's calls of the same names have win32_ names here, which leave a Winsock error as the last error.
#pragma once
#include <windows.h>

#include <netdb.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

typedef int SOCKET;
typedef HANDLE WSAEVENT;
typedef struct sockaddr SOCKADDR, *LPSOCKADDR;
typedef struct sockaddr_in SOCKADDR_IN;
typedef struct sockaddr_in6 SOCKADDR_IN6;
typedef struct sockaddr_storage SOCKADDR_STORAGE;
typedef struct addrinfo ADDRINFOA, *PADDRINFOA;
typedef struct _WSAPROTOCOL_INFOW WSAPROTOCOL_INFOW, *LPWSAPROTOCOL_INFOW;
typedef struct _WSABUF WSABUF, *LPWSABUF;
typedef struct _QualityOfService QOS, *LPQOS;
typedef OVERLAPPED WSAOVERLAPPED, *LPWSAOVERLAPPED;
typedef void(CALLBACK* LPWSAOVERLAPPED_COMPLETION_ROUTINE)(DWORD error, DWORD bytes, LPWSAOVERLAPPED, DWORD flags);
typedef struct WSAData {
    WORD wVersion, wHighVersion, iMaxSockets, iMaxUdpDg;
    char* lpVendorInfo;
    char szDescription[257], szSystemStatus[129];
} WSADATA, *LPWSADATA;
#define INVALID_SOCKET (-1)
#define SOCKET_ERROR (-1)
#define MAKEWORD(low, high) (static_cast<WORD>((low) | ((high) << 8)))

#define WSAEINTR 10004
#define WSAEACCES 10013
#define WSAEFAULT 10014
#define WSAEINVAL 10022
#define WSAEMFILE 10024
#define WSAEWOULDBLOCK 10035
#define WSAEINPROGRESS 10036
#define WSAENOTSOCK 10038
#define WSAEMSGSIZE 10040
#define WSAEOPNOTSUPP 10045
#define WSAEAFNOSUPPORT 10047
#define WSAEADDRINUSE 10048
#define WSAEADDRNOTAVAIL 10049
#define WSAENETDOWN 10050
#define WSAENETUNREACH 10051
#define WSAENETRESET 10052
#define WSAECONNABORTED 10053
#define WSAECONNRESET 10054
#define WSAENOBUFS 10055
#define WSAEISCONN 10056
#define WSAENOTCONN 10057
#define WSAESHUTDOWN 10058
#define WSAETIMEDOUT 10060
#define WSAECONNREFUSED 10061
#define WSAEHOSTDOWN 10064
#define WSAEHOSTUNREACH 10065
#define WSASYSNOTREADY 10091
#define WSANOTINITIALISED 10093
#define WSAECANCELLED 10103
#define WSAHOST_NOT_FOUND 11001
#define WSATRY_AGAIN 11002
#define WSANO_RECOVERY 11003
#define WSANO_DATA 11004

#define FD_READ 0x01
#define FD_WRITE 0x02
#define FD_CONNECT_BIT 4
#define FD_CONNECT (1 << FD_CONNECT_BIT)
#define FD_CLOSE_BIT 5
#define FD_CLOSE (1 << FD_CLOSE_BIT)
#define FD_MAX_EVENTS 10
typedef struct _WSANETWORKEVENTS {
    LONG lNetworkEvents;
    int iErrorCode[FD_MAX_EVENTS];
} WSANETWORKEVENTS, *LPWSANETWORKEVENTS;

#define WSA_FLAG_OVERLAPPED 0x01
#define WSA_FLAG_NO_HANDLE_INHERIT 0x80

extern "C" {
int WINAPI WSAStartup(WORD version, LPWSADATA data);
int WINAPI WSACleanup();
int WINAPI WSAGetLastError();
void WINAPI WSASetLastError(int code);
// text: NUL-terminated. On success *length is the address's size. Too small: WSAEFAULT (10014) and *length the size
// needed.
int WINAPI WSAStringToAddressW(LPWSTR text, INT family, LPWSAPROTOCOL_INFOW protocol, LPSOCKADDR address, int* length);
int WINAPI WSAAddressToStringW(LPSOCKADDR address, DWORD addressLength, LPWSAPROTOCOL_INFOW protocol, LPWSTR text,
                               LPDWORD units);
int WINAPI win32_gethostname(char* name, int length);
int WINAPI win32_getaddrinfo(const char* node, const char* service, const ADDRINFOA* hints, PADDRINFOA* result);
void WINAPI win32_freeaddrinfo(PADDRINFOA list);

// A socket is a descriptor of the platform. The flags are given with every socket here.
SOCKET WINAPI WSASocketW(int family, int type, int protocol, LPWSAPROTOCOL_INFOW info, unsigned group, DWORD flags);
int WINAPI closesocket(SOCKET socket);  // end an association with an event before
int WINAPI WSAConnect(SOCKET socket, const SOCKADDR* address, int length, LPWSABUF callerData, LPWSABUF calleeData,
                      LPQOS sendQuality, LPQOS groupQuality);
// Without a signal for a peer that has gone, and never interrupted by one.
int WINAPI win32_send(SOCKET socket, const void* bytes, size_t count, int flags);
int WINAPI win32_recv(SOCKET socket, void* buffer, size_t count, int flags);
int WINAPI win32_setsockopt(SOCKET socket, int level, int name, const void* value, int length);
int WINAPI WSAIoctl(SOCKET socket, DWORD code, LPVOID input, DWORD inputBytes, LPVOID output, DWORD outputBytes,
                    LPDWORD bytes, LPWSAOVERLAPPED overlapped, LPWSAOVERLAPPED_COMPLETION_ROUTINE routine);
// Makes the event count as signalled, besides its own state, while the socket has one of the wanted conditions, and the
// socket non-blocking. Mask 0 ends the association. An event serves one socket at a time.
int WINAPI WSAEventSelect(SOCKET socket, WSAEVENT event, LONG mask);
// Which of the conditions that were selected for this event its socket has now; with FD_CONNECT and FD_CLOSE the
// socket's error. Takes the event's own signal.
int WINAPI WSAEnumNetworkEvents(SOCKET socket, WSAEVENT event, LPWSANETWORKEVENTS happened);
}
#define gethostname win32_gethostname
#define getaddrinfo win32_getaddrinfo
#define freeaddrinfo win32_freeaddrinfo
#define send(socket, bytes, count, flags) win32_send(socket, bytes, count, flags)
#define recv(socket, buffer, count, flags) win32_recv(socket, buffer, count, flags)
#define setsockopt(socket, level, name, value, length) win32_setsockopt(socket, level, name, value, length)
