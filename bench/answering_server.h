// The other end of benchmarks that run a session in their own process: it answers and does nothing else.
#pragma once

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstring>

// Answers every request of the one client that connects, until it closes.
inline void AnswerEverything(int listener) {
    const int connection = accept(listener, nullptr, nullptr);
    const int on = 1;
    setsockopt(connection, IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
    // A request may come in pieces; its length is that of its first two bytes, modulo 65,536.
    unsigned char request[65536], first[10];
    size_t size = 0;
    for (ssize_t count; (count = recv(connection, request, sizeof request, 0)) > 0;) {
        if (size == 0) std::memcpy(first, request, sizeof first);
        size += static_cast<size_t>(count);
        if (size % 65536 != (size_t{first[0]} << 8 | first[1]) ||
            recv(connection, request, 1, MSG_PEEK | MSG_DONTWAIT) > 0)
            continue;
        size = 0;
        unsigned char answer[14] = {0, 14, 0, 3, 0x80, 0x10};
        std::memcpy(answer + 6, first + 6, 4);
        if (send(connection, answer, sizeof answer, MSG_NOSIGNAL) < 0) break;
    }
    close(connection);
}
