#include "tools/keldwick-server/sockets.h"

#include <arpa/inet.h>
#include <netinet/in.h>
#include <netinet/tcp.h>

#include <utility>

namespace tools {

ADDRESSES FindAddresses(const std::string& host, uint16_t port, int flags, std::string& error) {
    addrinfo hints{}, *list = nullptr;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE | AI_NUMERICSERV | flags;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (result != 0) error = "cannot find host " + host + ": " + gai_strerror(result);
    return ADDRESSES(result == 0 ? list : nullptr);
}

win32::DESCRIPTOR NewListener(const addrinfo& address) {
    win32::DESCRIPTOR made(socket(address.ai_family, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
    const int on = 1;
    setsockopt(made.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    const bool listens =
        bind(made.Get(), address.ai_addr, address.ai_addrlen) == 0 && listen(made.Get(), SOMAXCONN) == 0;
    return listens ? std::move(made) : win32::DESCRIPTOR();
}

uint16_t Numeric(const sockaddr_storage& address, std::string& host) {
    char text[INET6_ADDRSTRLEN] = "?";
    const bool six = address.ss_family == AF_INET6;
    const auto& in6 = reinterpret_cast<const sockaddr_in6&>(address);
    const auto& in4 = reinterpret_cast<const sockaddr_in&>(address);
    inet_ntop(address.ss_family, six ? static_cast<const void*>(&in6.sin6_addr) : &in4.sin_addr, text, sizeof(text));
    host = text;
    return ntohs(six ? in6.sin6_port : in4.sin_port);
}

void EndWhenPeerIsGone(int fd) {
    const struct {
        int level, name, value;
    } options[] = {{SOL_SOCKET, SO_KEEPALIVE, 1},
                   {IPPROTO_TCP, TCP_KEEPIDLE, 60},   // s of silence until it is asked
                   {IPPROTO_TCP, TCP_KEEPINTVL, 15},  // s until it is asked again
                   {IPPROTO_TCP, TCP_KEEPCNT, 4},
                   {IPPROTO_TCP, TCP_USER_TIMEOUT, 120'000}};  // ms that what was sent may wait to be confirmed
    for (const auto& option : options) setsockopt(fd, option.level, option.name, &option.value, sizeof(option.value));
}

uint16_t PortOf(int fd) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    std::string host;
    if (getsockname(fd, reinterpret_cast<sockaddr*>(&address), &length) != 0) return 0;
    return Numeric(address, host);
}

}  // namespace tools
