// The host's name, and the addresses of names; the empty name stands for this machine.
#include <ifaddrs.h>
#include <net/if.h>
#include <winsock2.h>
#include <ws2tcpip.h>

#include <cerrno>
#include <cstring>
#include <memory>
#include <new>
#include <optional>
#include <string>
#include <utility>

#include "win32/sockets/socket_error.h"
#include "win32/text/utf.h"

#undef gethostname
#undef getaddrinfo
#undef freeaddrinfo

namespace {

// The two kinds of list, of getaddrinfo and of GetAddrInfoW, differ in the type of their names only; neither is given
// names here. A list element has room for its address. Every list given out consists of these, also what the C
// library found.
template <typename INFO>
struct ELEMENT {
    INFO info{};  // the first member, so that the element is found from it
    sockaddr_storage address{};
};

template <typename INFO>
void FreeList(INFO* list) {
    while (list != nullptr) {
        INFO* const next = list->ai_next;
        delete reinterpret_cast<ELEMENT<INFO>*>(list);
        list = next;
    }
}

template <typename INFO>
class LIST_BUILDER {
public:
    LIST_BUILDER() = default;
    ~LIST_BUILDER() { FreeList(first); }
    LIST_BUILDER(const LIST_BUILDER&) = delete;
    LIST_BUILDER& operator=(const LIST_BUILDER&) = delete;

    // Takes over what the C library found.
    void Add(const addrinfo& found) {
        auto element = std::make_unique<ELEMENT<INFO>>();
        element->info.ai_flags = found.ai_flags;
        element->info.ai_family = found.ai_family;
        element->info.ai_socktype = found.ai_socktype;
        element->info.ai_protocol = found.ai_protocol;
        element->info.ai_addrlen = found.ai_addrlen;
        std::memcpy(&element->address, found.ai_addr, found.ai_addrlen);
        element->info.ai_addr = reinterpret_cast<sockaddr*>(&element->address);
        *end = &element.release()->info;
        end = &(*end)->ai_next;
    }
    bool Empty() const { return first == nullptr; }
    INFO* Release() { return std::exchange(first, nullptr); }

private:
    INFO* first = nullptr;
    INFO** end = &first;
};

struct ADDRINFO_FREER {
    void operator()(addrinfo* list) const { freeaddrinfo(list); }
};
using ADDRINFO_OWNER = std::unique_ptr<addrinfo, ADDRINFO_FREER>;

// Whatever the C library knows of the name.
template <typename INFO>
int AddLookedUp(const char* node, const char* service, const addrinfo& hints, LIST_BUILDER<INFO>& list) {
    addrinfo* found = nullptr;
    const int code = win32::SocketErrorFromLookup(getaddrinfo(node, service, &hints, &found), errno);
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

template <typename INFO>
void AddInterfaces(const ifaddrs* interfaces, const addrinfo& hints, bool loopback, LIST_BUILDER<INFO>& list) {
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
template <typename INFO>
int AddOwnAddresses(const addrinfo& hints, LIST_BUILDER<INFO>& list) {
    ifaddrs* found = nullptr;
    if (getifaddrs(&found) != 0) return win32::SocketErrorFromErrno(errno);
    const std::unique_ptr<ifaddrs, IFADDRS_FREER> owner(found);
    for (const bool loopback : {false, true})
        if (list.Empty()) AddInterfaces(found, hints, loopback, list);
    return list.Empty() ? WSANO_DATA : 0;
}

// Gives the list of the node's addresses, or null and a code. toUtf8: of the texts, which may be null.
template <typename INFO, typename TEXT, typename CONVERT>
int LookUp(const TEXT* node, const TEXT* service, const INFO* wanted, INFO** result, CONVERT toUtf8) {
    if (result == nullptr) return win32::FailLookup(WSAEFAULT);
    *result = nullptr;
    const bool isOwnName = node != nullptr && *node == 0;
    if (isOwnName && service != nullptr && *service != 0)
        return win32::FailLookup(WSAEINVAL);  // ports of the own addresses: not asked for
    addrinfo hints{};
    if (wanted != nullptr) {
        if (wanted->ai_flags & AI_CANONNAME) return win32::FailLookup(WSAEINVAL);  // not given here
        hints.ai_flags = wanted->ai_flags;
        hints.ai_family = wanted->ai_family;
        hints.ai_socktype = wanted->ai_socktype;
        hints.ai_protocol = wanted->ai_protocol;
    }
    try {
        LIST_BUILDER<INFO> list;
        const std::optional<std::string> host = toUtf8(node), port = toUtf8(service);
        const auto orNull = [](const std::optional<std::string>& text) { return text ? text->c_str() : nullptr; };
        const int code =
            isOwnName ? AddOwnAddresses(hints, list) : AddLookedUp(orNull(host), orNull(port), hints, list);
        if (code != 0) return win32::FailLookup(code);
        *result = list.Release();
    } catch (const std::bad_alloc&) {
        return win32::FailLookup(ERROR_NOT_ENOUGH_MEMORY);
    }
    return 0;
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
    return LookUp(node, service, hints, result,
                  [](const char* text) { return text != nullptr ? std::optional<std::string>(text) : std::nullopt; });
}

INT WINAPI GetAddrInfoW(PCWSTR node, PCWSTR service, const ADDRINFOW* hints, PADDRINFOW* result) {
    return LookUp(node, service, hints, result, [](PCWSTR text) {
        return text != nullptr ? std::optional<std::string>(win32::ToUtf8(text)) : std::nullopt;
    });
}

void WINAPI win32_freeaddrinfo(PADDRINFOA list) { FreeList(list); }

void WINAPI FreeAddrInfoW(PADDRINFOW list) { FreeList(list); }
