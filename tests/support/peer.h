// The other end of a connection, on a loopback port that the kernel chose.
#pragma once

#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <utility>

#include "win32/sync/descriptor.h"

class ACCEPTED {
public:
    explicit ACCEPTED(int descriptor) : fd(descriptor) {}
    int Get() const { return fd.Get(); }
    void Say(const std::string& text) const {
        EXPECT_EQ(static_cast<ssize_t>(text.size()), send(fd.Get(), text.data(), text.size(), MSG_NOSIGNAL));
    }
    std::string Hear(size_t count) const {
        std::string text(count, 0);
        const ssize_t got = recv(fd.Get(), text.data(), count, MSG_WAITALL);
        text.resize(got > 0 ? static_cast<size_t>(got) : 0);
        return text;
    }
    // Whether the other end closes within ten seconds; what it says before is passed over.
    bool SeesEnd() const {
        const timeval patience{10, 0};
        setsockopt(fd.Get(), SOL_SOCKET, SO_RCVTIMEO, &patience, sizeof(patience));
        std::string passed(1 << 16, 0);
        ssize_t got = 1;
        while (got > 0) got = recv(fd.Get(), passed.data(), passed.size(), 0);
        return got == 0;
    }
    void Close() { fd = win32::DESCRIPTOR(); }
    void Reset() {
        const linger hard{1, 0};
        setsockopt(fd.Get(), SOL_SOCKET, SO_LINGER, &hard, sizeof(hard));
        Close();
    }

private:
    win32::DESCRIPTOR fd;
};

class LISTENING {
public:
    // port 0: the kernel's choice.
    explicit LISTENING(const std::string& address = "127.0.0.1", int port = 0, int backlog = 16) {
        const bool ipv6 = address.find(':') != std::string::npos;
        fd = win32::DESCRIPTOR(socket(ipv6 ? AF_INET6 : AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0));
        sockaddr_in6 name{};  // the port is at the same place in both kinds
        name.sin6_port = htons(static_cast<uint16_t>(port));
        name.sin6_family = ipv6 ? AF_INET6 : AF_INET;
        void* const bytes = ipv6 ? static_cast<void*>(&name.sin6_addr) : &name.sin6_flowinfo;
        inet_pton(name.sin6_family, address.c_str(), bytes);
        socklen_t length = ipv6 ? sizeof(sockaddr_in6) : sizeof(sockaddr_in);
        const int on = 1;
        setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<sockaddr*>(&name), length));
        EXPECT_EQ(0, listen(fd.Get(), backlog));
        getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&name), &length);
        number = ntohs(name.sin6_port);
    }
    int Port() const { return number; }
    ACCEPTED Accept() const { return ACCEPTED(accept4(fd.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    void Close() { fd = win32::DESCRIPTOR(); }

private:
    win32::DESCRIPTOR fd;
    int number = 0;
};
