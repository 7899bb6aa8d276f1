// An identity server inside the test program, on a loopback address of this process's own, whose answers a test
// scripts. It cuts requests out of the stream by the length they state, and answers each. It moves only by Step; what
// is on the way between it and the agent can be waited for.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <netinet/tcp.h>
#include <openssl/ssl.h>
#include <poll.h>
#include <sys/ioctl.h>

#include <algorithm>
#include <csignal>
#include <functional>
#include <memory>
#include <vector>

#include "tests/support/peer.h"

class SCRIPTED_SERVER {
public:
    using SCRIPT = std::function<std::string(const std::string& request)>;  // gives what is sent for a request

    // number: one of several, each at an address of its own. tls: of its connections, and it must outlive them; null:
    // plain TCP.
    SCRIPTED_SERVER(int number, SSL_CTX* tls, int port) : context(tls), listening(Host(number), port) {
        std::signal(SIGPIPE, SIG_IGN);  // OpenSSL writes to clients that may have gone
    }

    static std::string Host(int number = 0) {
        const unsigned id = static_cast<unsigned>(getpid());  // at most 22 bits
        return "127." + std::to_string((id >> 16 & 0x3F) + 0x40 * static_cast<unsigned>(number)) + "." +
               std::to_string(id >> 8 & 0xFF) + "." + std::to_string(id & 0xFF);
    }

    // A well-formed answer with that status: code 0x8010 and the request's ID.
    static std::string GoodAnswer(const std::string& request, char status = 0) {
        return std::string("\0\x0E\0\x03\x80\x10", 6) + request.substr(6, 4) + std::string(3, '\0') + status;
    }

    void Answer(SCRIPT with) { script = std::move(with); }
    void Say(const std::string& bytes) {  // to every client, unasked
        for (const auto& client : clients) client->Send(bytes);
    }
    void HangUp() { clients.clear(); }  // not while it answers
    size_t Clients() const { return clients.size(); }

    // Does what there is to do. False: there was nothing.
    bool Step() {
        std::vector<pollfd> wanted{{listening.Get(), POLLIN, 0}};
        for (const auto& client : clients) wanted.push_back({client->peer.Get(), POLLIN, 0});
        if (poll(wanted.data(), wanted.size(), 0) <= 0) return false;
        for (size_t i = clients.size(); i-- > 0;)
            if (wanted[i + 1].revents != 0 && !Serve(*clients[i])) clients.erase(clients.begin() + ptrdiff_t(i));
        if (wanted[0].revents != 0) clients.push_back(std::make_unique<CLIENT>(listening.Accept(), context));
        return true;
    }

private:
    struct CLIENT {
        CLIENT(ACCEPTED accepted, SSL_CTX* tls) : peer(std::move(accepted)) {
            if (tls == nullptr) return;
            fcntl(peer.Get(), F_SETFL, O_NONBLOCK);
            session = SSL_new(tls);
            SSL_set_fd(session, peer.Get());
            SSL_set_accept_state(session);
        }
        ~CLIENT() { SSL_free(session); }

        void Send(const std::string& answer) const {
            if (session != nullptr)
                SSL_write(session, answer.data(), static_cast<int>(answer.size()));
            else
                send(peer.Get(), answer.data(), answer.size(), MSG_NOSIGNAL);
        }
        // Takes a piece of what has come. False: nothing more will.
        bool Receive() {
            char chunk[65536];
            if (session == nullptr) {
                const ssize_t count = recv(peer.Get(), chunk, sizeof(chunk), 0);
                bytes.append(chunk, static_cast<size_t>(std::max<ssize_t>(count, 0)));
                return count > 0;
            }
            int count = 0;
            while ((count = SSL_read(session, chunk, sizeof(chunk))) > 0)
                bytes.append(chunk, static_cast<size_t>(count));
            return SSL_get_error(session, count) == SSL_ERROR_WANT_READ;
        }

        const ACCEPTED peer;
        SSL* session = nullptr;
        std::string bytes;
    };

    // False: the client has gone, or talks nonsense.
    bool Serve(CLIENT& client) {
        const bool more = client.Receive();
        for (;;) {
            if (client.bytes.size() < 10) return more;
            const auto byte = [&](size_t i) {
                return static_cast<size_t>(static_cast<unsigned char>(client.bytes[i]));
            };
            const size_t length = byte(0) << 8 | byte(1);
            if (length < 10 || client.bytes.size() < length) return more && length >= 10;
            const std::string request = client.bytes.substr(0, length);
            client.bytes.erase(0, length);
            if (const std::string answer = script(request); !answer.empty()) client.Send(answer);
        }
    }

    SSL_CTX* const context;
    const LISTENING listening;
    std::vector<std::unique_ptr<CLIENT>> clients;
    SCRIPT script;
};

// One end of a TCP connection that this process holds.
struct TCP_END {
    int descriptor;
    int state;
    uint64_t own, peer;  // addresses with ports
};

// Of IPv4 only.
inline std::vector<TCP_END> OpenTcpEnds() {
    std::vector<TCP_END> ends;
    const auto name = [](int descriptor, auto call) {
        sockaddr_in address{};
        socklen_t length = sizeof(address);
        call(descriptor, reinterpret_cast<sockaddr*>(&address), &length);
        return uint64_t{address.sin_addr.s_addr} << 16 | address.sin_port;
    };
    DIR* const descriptors = opendir("/proc/self/fd");
    while (const dirent* entry = readdir(descriptors)) {
        const int descriptor = std::atoi(entry->d_name);  // 0 for "." and ".."
        tcp_info info{};
        socklen_t length = sizeof(info);
        if (getsockopt(descriptor, IPPROTO_TCP, TCP_INFO, &info, &length) != 0 || info.tcpi_state == TCP_LISTEN)
            continue;
        const int now = 1;  // so that an acknowledgement is not held back
        setsockopt(descriptor, IPPROTO_TCP, TCP_QUICKACK, &now, sizeof(now));
        ends.push_back({descriptor, info.tcpi_state, name(descriptor, getsockname), name(descriptor, getpeername)});
    }
    closedir(descriptors);
    return ends;
}

// False: bytes, an end or the beginning of a connection are still on the way, or were not yet accepted.
inline bool NetworkIsQuiet() {
    const std::vector<TCP_END> ends = OpenTcpEnds();
    return std::none_of(ends.begin(), ends.end(), [&](const TCP_END& end) {
        if (end.state == TCP_SYN_SENT) return true;
        if (end.state != TCP_ESTABLISHED && end.state != TCP_CLOSE_WAIT && end.state != TCP_FIN_WAIT1) return false;
        const bool paired =
            std::any_of(ends.begin(), ends.end(), [&](const TCP_END& other) { return other.own == end.peer; });
        int underWay = 0;
        return (end.state == TCP_ESTABLISHED && !paired) ||
               (ioctl(end.descriptor, SIOCOUTQ, &underWay) == 0 && underWay != 0);
    });
}
