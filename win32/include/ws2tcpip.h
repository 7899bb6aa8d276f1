// Names of socket addresses, addresses of names, and options of TCP.
#pragma once
#include <winsock2.h>
#undef NI_NAMEREQD
#define NI_NAMEREQD 0x04
#define TCP_MAXRT 0x4005  // seconds after which bytes without an acknowledgement end the connection

typedef struct addrinfoW {
    int ai_flags, ai_family, ai_socktype, ai_protocol;
    size_t ai_addrlen;
    PWSTR ai_canonname;
    struct sockaddr* ai_addr;
    struct addrinfoW* ai_next;
} ADDRINFOW, *PADDRINFOW;

extern "C" {
INT WINAPI GetNameInfoW(const SOCKADDR* address, socklen_t length, LPWSTR host, DWORD hostUnits, LPWSTR service,
                        DWORD serviceUnits, INT flags);
// As getaddrinfo. Flags and hints are the platform's own.
INT WINAPI GetAddrInfoW(PCWSTR node, PCWSTR service, const ADDRINFOW* hints, PADDRINFOW* result);
void WINAPI FreeAddrInfoW(PADDRINFOW list);
}
