// Keep-alive of a TCP connection, through WSAIoctl.
#pragma once
#include <winsock2.h>
#define SIO_KEEPALIVE_VALS 0x98000004u
struct tcp_keepalive {
    ULONG onoff, keepalivetime, keepaliveinterval;  // times in milliseconds; here they count in whole seconds
};
