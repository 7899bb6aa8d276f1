#include "component/resolver.h"

#include <sys/eventfd.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstdint>
#include <cstring>
#include <new>
#include <utility>

#include "win32/sockets/lookup_threads.h"
#include "win32/sockets/socket_error.h"

namespace keldwick {
namespace {

constexpr size_t MostAddresses = 32;  // of one name; the rest could not be tried within any time-out
constexpr int TryAgain = 11002;       // WSATRY_AGAIN; winsock2.h would replace getaddrinfo
constexpr int NotEnoughMemory = 8;    // ERROR_NOT_ENOUGH_MEMORY

std::atomic<int> lookupsInFlight{0};

struct ADDRINFO_FREER {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};

// The addresses of the host, at most MostAddresses. Result: a Winsock code.
int Resolve(const std::string& host, int port, int flags, std::vector<SOCKET_ADDRESS>& found) {
    addrinfo hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    addrinfo* list = nullptr;
    const int result = getaddrinfo(host.c_str(), std::to_string(port).c_str(), &hints, &list);
    if (result != 0) return win32::SocketErrorFromLookup(result, errno);
    const std::unique_ptr<addrinfo, ADDRINFO_FREER> owner(list);
    for (const addrinfo* one = list; one != nullptr && found.size() < MostAddresses; one = one->ai_next) {
        SOCKET_ADDRESS& address = found.emplace_back();
        std::memcpy(&address.storage, one->ai_addr, one->ai_addrlen);
        address.length = one->ai_addrlen;
    }
    return 0;
}

}  // namespace

std::string SOCKET_ADDRESS::Host() const {
    char host[NI_MAXHOST];
    if (getnameinfo(Get(), length, host, sizeof(host), nullptr, 0, NI_NUMERICHOST) != 0) return "?";
    const std::string text = host;
    return text.substr(0, text.find('%'));
}

std::string SOCKET_ADDRESS::Text() const {
    char host[NI_MAXHOST], service[NI_MAXSERV];
    if (getnameinfo(Get(), length, host, sizeof(host), service, sizeof(service), NI_NUMERICHOST | NI_NUMERICSERV) != 0)
        return "?";
    const bool ipv6 = storage.ss_family == AF_INET6;
    return (ipv6 ? "[" : "") + std::string(host) + (ipv6 ? "]:" : ":") + service;
}

bool NumericAddress(const std::string& host, int port, SOCKET_ADDRESS& address) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    std::vector<SOCKET_ADDRESS> found;
    if (Resolve(bracketed ? host.substr(1, host.size() - 2) : host, port, AI_NUMERICHOST, found) != 0 || found.empty())
        return false;
    address = found.front();
    return true;
}

NAME_LOOKUP::NAME_LOOKUP(std::string name, int number, int eventDescriptor)
    : host(std::move(name)), port(number), ended(eventDescriptor) {}

std::shared_ptr<NAME_LOOKUP> NAME_LOOKUP::Start(const std::string& host, int port, int& error) {
    const std::shared_ptr<NAME_LOOKUP> lookup(new NAME_LOOKUP(host, port, eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK)));
    error = 0;
    if (!lookup->ended)
        error = win32::SocketErrorFromErrno(errno);
    else if (!win32::RunLookup(lookupsInFlight, [lookup] { lookup->Run(); }))
        error = TryAgain;
    return error == 0 ? lookup : nullptr;
}

void NAME_LOOKUP::Run() {
    std::vector<SOCKET_ADDRESS> found;
    int code;
    try {
        code = Resolve(host, port, 0, found);
    } catch (const std::bad_alloc&) {
        code = NotEnoughMemory;
    }
    const std::lock_guard guard(lock);
    status = code == 0 && found.empty() ? TryAgain : code;
    if (status == 0) addresses = std::move(found);
    done = true;
    const uint64_t one = 1;
    [[maybe_unused]] const ssize_t written = write(ended.Get(), &one, sizeof(one));  // the counter is 0: it cannot fail
}

bool NAME_LOOKUP::Result(std::vector<SOCKET_ADDRESS>& found, int& error) {
    const std::lock_guard guard(lock);
    if (!done) return false;
    found = addresses;
    error = status;
    return true;
}

}  // namespace keldwick
