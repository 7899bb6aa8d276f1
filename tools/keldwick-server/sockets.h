// What both of the server's fronts do with sockets.
#pragma once

#include <netdb.h>
#include <sys/socket.h>

#include <cstdint>
#include <memory>
#include <string>

#include "win32/sync/descriptor.h"

namespace tools {

struct ADDRINFO_FREER {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using ADDRESSES = std::unique_ptr<addrinfo, ADDRINFO_FREER>;

// The addresses to listen on. flags: further AI_ ones. Null: error says why.
ADDRESSES FindAddresses(const std::string& host, uint16_t port, int flags, std::string& error);

// A listening socket that does not wait. None: errno says why.
win32::DESCRIPTOR NewListener(const addrinfo& address);

// The port of the address; its host as text.
uint16_t Numeric(const sockaddr_storage& address, std::string& host);

// Ends a connection whose peer has gone without a word: after about two minutes, whether or not something is on the
// way to it.
void EndWhenPeerIsGone(int fd);

// The port that the socket is bound to; 0 when it is to none.
uint16_t PortOf(int fd);

}  // namespace tools
