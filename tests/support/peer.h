// The other end of a connection, on a loopback port that the kernel chose or the test did.
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
    // IPv4. port 0: the kernel's choice.
    explicit LISTENING(const std::string& address = "127.0.0.1", int port = 0, int backlog = 16)
        : fd(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in name{};
        name.sin_family = AF_INET;
        name.sin_port = htons(static_cast<uint16_t>(port));
        inet_pton(AF_INET, address.c_str(), &name.sin_addr);
        socklen_t length = sizeof(name);
        const int on = 1;
        setsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
        EXPECT_EQ(0, bind(fd.Get(), reinterpret_cast<sockaddr*>(&name), length));
        EXPECT_EQ(0, listen(fd.Get(), backlog));
        getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&name), &length);
        number = ntohs(name.sin_port);
    }
    int Get() const { return fd.Get(); }
    int Port() const { return number; }
    ACCEPTED Accept() const { return ACCEPTED(accept4(fd.Get(), nullptr, nullptr, SOCK_CLOEXEC)); }
    void Close() { fd = win32::DESCRIPTOR(); }

private:
    win32::DESCRIPTOR fd;
    int number = 0;
};
