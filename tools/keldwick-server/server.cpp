#include "tools/keldwick-server/server.h"

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/epoll.h>
#include <sys/resource.h>
#include <sys/socket.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <utility>

#include "tools/keldwick-server/sockets.h"

namespace tools {
namespace {

constexpr size_t DescriptorsKept = 32;  // of the process's limit, for everything that is no client
constexpr int RetryMs = 200;            // until accepting is tried again after the system had no descriptor left

// others: descriptors that the process needs besides.
size_t ClientLimit(size_t others) {
    rlimit limit{};
    const size_t kept = DescriptorsKept + others;
    if (getrlimit(RLIMIT_NOFILE, &limit) != 0 || limit.rlim_cur <= 2 * kept) return DescriptorsKept;
    return static_cast<size_t>(limit.rlim_cur) - kept;
}

}  // namespace

SERVER::SERVER(OUTPUT where) : output(std::move(where)) {}

bool SERVER::Open(const SERVER_OPTIONS& wanted, std::string& error) {
    options = wanted;
    mostClients = ClientLimit(options.otherDescriptors);
    poller = win32::DESCRIPTOR(epoll_create1(EPOLL_CLOEXEC));
    if (!poller) {
        error = std::string("cannot wait for sockets: ") + std::strerror(errno);
        return false;
    }
    if (options.tlsPort || !options.certificateFile.empty()) {
        std::string reason;
        tls = NewServerContext(options.certificateFile, options.keyFile, reason);
        if (!tls || (!options.keyLogFile.empty() && !LogKeys(tls.get(), options.keyLogFile, reason))) {
            error = "cannot use TLS: " + reason;
            return false;
        }
    }
    if (options.tcpPort && !Listen(*options.tcpPort, false, tcpPort, error)) return false;
    if (options.tlsPort && !Listen(*options.tlsPort, true, tlsPort, error)) return false;
    WatchListeners(true);
    return true;
}

bool SERVER::Listen(uint16_t port, bool secure, uint16_t& bound, std::string& error) {
    const ADDRESSES list = FindAddresses(options.host, port, 0, error);
    if (!list) return false;
    for (const addrinfo* one = list.get(); one != nullptr; one = one->ai_next) {
        win32::DESCRIPTOR made = NewListener(*one);
        if (!made) {
            error = "cannot listen on " + options.host + " port " + std::to_string(port) + ": " + std::strerror(errno);
            return false;
        }
        bound = PortOf(made.Get());
        listeners.push_back({std::move(made), secure});
    }
    return true;
}

void SERVER::Run(int stopDescriptor) {
    Watch(stopDescriptor, EPOLLIN);
    std::array<epoll_event, 64> events;
    for (;;) {
        const int count = epoll_wait(poller.Get(), events.data(), static_cast<int>(events.size()), WaitMs());
        if (count < 0 && errno != EINTR) return;
        if (count == 0 && !accepting) WatchListeners(true);
        for (int i = 0; i < count; ++i) {
            const int fd = events[static_cast<size_t>(i)].data.fd;
            if (fd == stopDescriptor) return;
            const auto client = clients.find(fd);
            if (client != clients.end()) {
                Serve(*client->second);
                continue;
            }
            const auto listener = std::find_if(listeners.begin(), listeners.end(),
                                               [fd](const LISTENER& one) { return one.socket.Get() == fd; });
            if (listener != listeners.end()) Accept(*listener);
        }
        ServeBuffered();
        if (CLIENT::CLOCK::now() >= due) EndOverdue();
    }
}

int SERVER::WaitMs() const {
    if (!buffered.empty()) return 0;
    const auto now = CLIENT::CLOCK::now();
    const auto left = due == CLIENT::CLOCK::time_point::max()
                          ? -1
                          : std::max<int64_t>(std::chrono::ceil<std::chrono::milliseconds>(due - now).count(), 0);
    if (!accepting && (left < 0 || left > RetryMs)) return RetryMs;
    return static_cast<int>(left);
}

void SERVER::Watch(int fd, uint32_t events) {
    epoll_event wanted{events, {}};
    wanted.data.fd = fd;
    if (epoll_ctl(poller.Get(), EPOLL_CTL_MOD, fd, &wanted) != 0) epoll_ctl(poller.Get(), EPOLL_CTL_ADD, fd, &wanted);
}

void SERVER::Accept(const LISTENER& listener) {
    sockaddr_storage address{};
    socklen_t length = sizeof(address);
    auto* const peer = reinterpret_cast<sockaddr*>(&address);
    win32::DESCRIPTOR taken(accept4(listener.socket.Get(), peer, &length, SOCK_NONBLOCK | SOCK_CLOEXEC));
    if (!taken) {
        if (errno == EMFILE || errno == ENFILE || errno == ENOBUFS || errno == ENOMEM) WatchListeners(false);
        return;
    }
    const int on = 1, fd = taken.Get();
    setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
    CONNECTION connection;
    connection.port = Numeric(address, connection.address);
    connection.secure = listener.secure;
    connection.since = std::chrono::system_clock::now();
    if (ofAddress[connection.address] >= std::max<size_t>(mostClients / 2, 1)) {
        ENDING end;
        end.complaint = "not let in: half of all connections come from this address already";
        end.when = connection.since;
        output.ended(connection, end);
        return;
    }
    EndWhenPeerIsGone(fd);
    connection.number = ++connections;
    ++ofAddress[connection.address];
    output.connected(connection);
    const auto added = clients.emplace(
        fd, std::make_unique<CLIENT>(std::move(taken), std::move(connection), listener.secure ? tls.get() : nullptr));
    Watch(fd, added.first->second->Wanted());
    NoteDue(*added.first->second);
    if (clients.size() >= mostClients) WatchListeners(false);
}

void SERVER::WatchListeners(bool on) {
    if (on && clients.size() >= mostClients) return;
    accepting = on;
    for (const LISTENER& listener : listeners) Watch(listener.socket.Get(), on ? static_cast<uint32_t>(EPOLLIN) : 0u);
}

void SERVER::Serve(CLIENT& client) {
    const uint32_t before = client.Wanted();
    unfinished -= client.Held();
    const bool goesOn = client.Serve(options.status, output.report);
    unfinished += client.Held();
    if (!goesOn) {
        Drop(client.Descriptor());
        return;
    }
    NoteDue(client);
    if (client.Wanted() != before) Watch(client.Descriptor(), client.Wanted());
    if (client.HasBuffered() && (client.Wanted() & EPOLLIN)) buffered.push_back(client.Descriptor());
    if (unfinished > options.unfinishedBytes) EndLargest();
}

void SERVER::NoteDue(const CLIENT& client) {
    if (client.Owes() != nullptr) due = std::min(due, client.Progress() + options.patience);
}

void SERVER::EndOverdue() {
    const auto now = CLIENT::CLOCK::now();
    std::vector<int> late;
    for (const auto& [fd, client] : clients)
        if (client->Owes() != nullptr && client->Progress() + options.patience <= now) late.push_back(fd);
    for (const int fd : late) {
        clients[fd]->Complain(std::string("took too long for ") + clients[fd]->Owes());
        Drop(fd);
    }
    due = CLIENT::CLOCK::time_point::max();
    for (const auto& client : clients) NoteDue(*client.second);
    due =
        std::max(due, now + options.patience / 30);  // however many there are, they are not looked through all the time
}

void SERVER::EndLargest() {
    const auto largest = std::max_element(clients.begin(), clients.end(), [](const auto& a, const auto& b) {
        return a.second->Held() < b.second->Held();
    });
    largest->second->Complain("unfinished requests took too much memory, and its own the most: " +
                              std::to_string(largest->second->Held()) + " bytes");
    Drop(largest->first);
}

void SERVER::ServeBuffered() {
    for (const int fd : std::exchange(buffered, {})) {
        const auto client = clients.find(fd);
        if (client != clients.end()) Serve(*client->second);
    }
}

void SERVER::Drop(int fd) {
    const auto client = clients.find(fd);
    ENDING end = client->second->End();
    end.when = std::chrono::system_clock::now();
    output.ended(client->second->Connection(), end);
    unfinished -= client->second->Held();
    const auto ofThis = ofAddress.find(client->second->Connection().address);
    if (--ofThis->second == 0) ofAddress.erase(ofThis);
    clients.erase(client);
    if (!accepting) WatchListeners(true);
}

}  // namespace tools
