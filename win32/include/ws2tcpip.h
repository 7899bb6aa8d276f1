// Names of socket addresses.
#pragma once
#include <winsock2.h>
#undef NI_NAMEREQD
#define NI_NAMEREQD 0x04
extern "C" INT WINAPI GetNameInfoW(const SOCKADDR* address, socklen_t length, LPWSTR host, DWORD hostUnits,
                                   LPWSTR service, DWORD serviceUnits, INT flags);
