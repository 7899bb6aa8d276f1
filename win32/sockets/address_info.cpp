// The host's name, and the addresses of names; the empty name stands for this machine.
#include <ifaddrs.h>
#include <net/if.h>
#include <winsock2.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <string>
#include <utility>
#include <vector>

#include "win32/sockets/socket_error.h"

#undef gethostname
#undef getaddrinfo
#undef freeaddrinfo

namespace {

int Fail(int code) {
    WSASetLastError(code);
    return code;
}

// A list element with room for what it points to. Every list given out consists of these, whoever found the addresses.
struct ELEMENT {
    addrinfo info{};
    sockaddr_storage address{};
    std::string canonicalName;
};

ELEMENT* ElementOf(addrinfo* info) { return reinterpret_cast<ELEMENT*>(info); }  // info is its first member

void FreeList(addrinfo* list) {
    while (list != nullptr) {
        addrinfo* next = list->ai_next;
        delete ElementOf(list);
        list = next;
    }
}

class LIST_BUILDER {
public:
    LIST_BUILDER() = default;
    ~LIST_BUILDER() { FreeList(first); }
    LIST_BUILDER(const LIST_BUILDER&) = delete;
    LIST_BUILDER& operator=(const LIST_BUILDER&) = delete;

    void Add(const addrinfo& info) {
        auto element = std::make_unique<ELEMENT>();
        element->info = info;
        element->info.ai_next = nullptr;
        std::memcpy(&element->address, info.ai_addr, info.ai_addrlen);
        element->info.ai_addr = reinterpret_cast<sockaddr*>(&element->address);
        if (info.ai_canonname != nullptr) {
            element->canonicalName = info.ai_canonname;
            element->info.ai_canonname = element->canonicalName.data();
        }
        *end = &element.release()->info;
        end = &(*end)->ai_next;
    }
    bool Empty() const { return first == nullptr; }
    addrinfo* Release() { return std::exchange(first, nullptr); }

private:
    addrinfo* first = nullptr;
    addrinfo** end = &first;
};

struct ADDRINFO_FREER {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using ADDRINFO_OWNER = std::unique_ptr<addrinfo, ADDRINFO_FREER>;

// Whatever the C library knows of the name, copied into our own list.
int AddLookedUp(const char* node, const char* service, const addrinfo* hints, LIST_BUILDER& list) {
    addrinfo* found = nullptr;
    const int code = win32::SocketErrorFromLookup(getaddrinfo(node, service, hints, &found), errno);
    if (code != 0) return code;
    const ADDRINFO_OWNER owner(found);
    for (const addrinfo* info = found; info != nullptr; info = info->ai_next) list.Add(*info);
    return 0;
}

struct IFADDRS_FREER {
    void operator()(ifaddrs* list) const { freeifaddrs(list); }
};

bool IsWanted(const ifaddrs& interface, int family, bool loopback) {
    if (interface.ifa_addr == nullptr || !(interface.ifa_flags & IFF_UP)) return false;
    if (((interface.ifa_flags & IFF_LOOPBACK) != 0) != loopback) return false;
    const int found = interface.ifa_addr->sa_family;
    return (found == AF_INET || found == AF_INET6) && (family == AF_UNSPEC || family == found);
}

void AddInterfaces(const ifaddrs* interfaces, const addrinfo& hints, bool loopback, LIST_BUILDER& list) {
    for (const ifaddrs* one = interfaces; one != nullptr; one = one->ifa_next) {
        if (!IsWanted(*one, hints.ai_family, loopback)) continue;
        addrinfo info{};
        info.ai_family = one->ifa_addr->sa_family;
        info.ai_socktype = hints.ai_socktype;
        info.ai_protocol = hints.ai_protocol;
        info.ai_addrlen = info.ai_family == AF_INET ? sizeof(sockaddr_in) : sizeof(sockaddr_in6);
        info.ai_addr = one->ifa_addr;
        list.Add(info);
    }
}

// The addresses of this machine's interfaces; those of the loopback interface only when there are no others.
int AddOwnAddresses(const addrinfo* wanted, LIST_BUILDER& list) {
    const addrinfo hints = wanted != nullptr ? *wanted : addrinfo{};
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) return win32::SocketErrorFromErrno(errno);
    const std::unique_ptr<ifaddrs, IFADDRS_FREER> owner(found);
    for (const bool loopback : {false, true})
        if (list.Empty()) AddInterfaces(found, hints, loopback, list);
    return list.Empty() ? WSANO_DATA : 0;
}

}  // namespace

int WINAPI win32_gethostname(char* name, int length) {
    if (name == nullptr || length <= 0) return win32::FailSocketCall(WSAEFAULT);
    char whole[256];  // longer than any name that Linux lets a machine have (64)
    if (gethostname(whole, sizeof(whole)) != 0) return win32::FailSocketCall(win32::SocketErrorFromErrno(errno));
    const size_t size = strnlen(whole, sizeof(whole) - 1) + 1;
    if (size > static_cast<size_t>(length)) return win32::FailSocketCall(WSAEFAULT);
    std::memcpy(name, whole, size - 1);
    name[size - 1] = 0;
    return 0;
}

int WINAPI win32_getaddrinfo(const char* node, const char* service, const ADDRINFOA* hints, PADDRINFOA* result) {
    if (result == nullptr) return Fail(WSAEFAULT);
    *result = nullptr;
    const bool ownName = node != nullptr && *node == 0;
    if (ownName && service != nullptr && *service != 0)
        return Fail(WSAEINVAL);  // ports of the own addresses: not asked for
    try {
        LIST_BUILDER list;
        const int code = ownName ? AddOwnAddresses(hints, list) : AddLookedUp(node, service, hints, list);
        if (code != 0) return Fail(code);
        *result = list.Release();
    } catch (const std::bad_alloc&) {
        return Fail(ERROR_NOT_ENOUGH_MEMORY);
    }
    return 0;
}

void WINAPI win32_freeaddrinfo(PADDRINFOA list) { FreeList(list); }
