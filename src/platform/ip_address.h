// IP addresses: a family with its socket address, and the ways from and to text.
#pragma once

#include <winsock2.h>
#include <ws2tcpip.h>

#include "platform/heap_buffer.h"
#include "platform/string.h"

namespace keldwick {

struct IP_ADDRESS {
    IP_ADDRESS() = default;
    explicit IP_ADDRESS(WORD wanted) : family(wanted) {}

    const SOCKADDR* SocketAddress() const { return address.As<SOCKADDR>(); }
    DWORD SocketAddressLength() const { return address.Size(); }

    WORD family = 0;      // AF_INET, AF_INET6, or 0 for no valid address
    HEAP_BUFFER address;  // the socket address of that family; empty when none
};

WORD AddressFamilyOf(const WCHAR* text);  // AF_INET6 when the text contains a colon, else AF_INET

// The socket address written as text; false, with a message, when it is none of that family.
bool TextToAddress(const WCHAR* text, WORD family, HEAP_BUFFER& address);
bool ParseAddress(IP_ADDRESS& address, const WCHAR* text);  // false: family 0
// The text of a socket address; false, with a message, when the platform cannot print it.
bool AddressToText(const SOCKADDR* address, DWORD length, STRING& text);

BYTE AddressVersion(const IP_ADDRESS& address);       // 4, 6, or 0 for another family
DWORD AddressLength(const IP_ADDRESS& address);       // 4, 16, or 0
const BYTE* AddressBytes(const IP_ADDRESS& address);  // inside the address; null for another family or none
// 127.0.0.1 and ::1 only: the rest of 127.0.0.0/8 counts as any other address.
bool IsLoopback(const IP_ADDRESS& address);

}  // namespace keldwick
