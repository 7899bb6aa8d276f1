#include "component/name_lookup.h"

#include <process.h>
#include <ws2tcpip.h>

#include <atomic>
#include <cstring>
#include <new>
#include <utility>

#include "platform/ip_address.h"

namespace keldwick {
namespace {

constexpr size_t MaxAddresses = 32;  // of one name; the rest could not be tried within any time-out
constexpr int MaxLookups = 16;       // under way; with that many hanging, the next one fails at once instead

std::atomic<int> lookupsInFlight{0};

struct ADDRESS_LIST_CLOSER {
    using TYPE = PADDRINFOW;
    static void Close(TYPE list) { FreeAddrInfoW(list); }
};
using ADDRESS_LIST = OWNER<ADDRESS_LIST_CLOSER>;

// The addresses of the host, at most MaxAddresses. Result: a Winsock code.
int Resolve(const std::string& host, int port, int flags, std::vector<SOCKET_ADDRESS>& found) {
    ADDRINFOW hints{};
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = flags | AI_NUMERICSERV;
    ADDRESS_LIST list;
    const STRING name(host.c_str()), service(std::to_string(port).c_str());
    const int code = GetAddrInfoW(name.Text(), service.Text(), &hints, list.Put());
    if (code != 0) return code;
    for (const ADDRINFOW* one = list.Get(); one != nullptr && found.size() < MaxAddresses; one = one->ai_next) {
        if (one->ai_addrlen > sizeof(SOCKADDR_STORAGE)) continue;
        SOCKET_ADDRESS& address = found.emplace_back();
        std::memcpy(&address.storage, one->ai_addr, one->ai_addrlen);
        address.length = static_cast<int>(one->ai_addrlen);
    }
    return found.empty() ? WSATRY_AGAIN : 0;
}

}  // namespace

std::string SOCKET_ADDRESS::Text() const {
    STRING text;
    if (!AddressToText(Get(), static_cast<DWORD>(length), text)) return "?";
    return STRING_UTF8(text).Text();
}

std::string SOCKET_ADDRESS::Host() const {
    SOCKET_ADDRESS host = *this;
    if (storage.ss_family == AF_INET6) {
        auto& address = reinterpret_cast<SOCKADDR_IN6&>(host.storage);
        address.sin6_port = 0;
        address.sin6_scope_id = 0;
    } else {
        reinterpret_cast<SOCKADDR_IN&>(host.storage).sin_port = 0;
    }
    return host.Text();
}

bool NumericAddress(const std::string& host, int port, SOCKET_ADDRESS& address) {
    const bool bracketed = host.size() > 2 && host.front() == '[' && host.back() == ']';
    std::vector<SOCKET_ADDRESS> found;
    if (Resolve(bracketed ? host.substr(1, host.size() - 2) : host, port, AI_NUMERICHOST, found) != 0) return false;
    address = found.front();
    return true;
}

NAME_LOOKUP::NAME_LOOKUP(std::string name, int number, std::shared_ptr<HANDLE_OWNER> endedEvent)
    : host(std::move(name)), port(number), ended(std::move(endedEvent)) {}

std::shared_ptr<NAME_LOOKUP> NAME_LOOKUP::Start(const std::string& host, int port,
                                                const std::shared_ptr<HANDLE_OWNER>& ended, int& error) {
    error = WSATRY_AGAIN;
    if (lookupsInFlight >= MaxLookups) return nullptr;
    const std::shared_ptr<NAME_LOOKUP> lookup(new NAME_LOOKUP(host, port, ended));
    auto shared = std::make_unique<std::shared_ptr<NAME_LOOKUP>>(lookup);
    ++lookupsInFlight;
    const HANDLE_OWNER thread(reinterpret_cast<HANDLE>(_beginthreadex(nullptr, 0, Thread, shared.get(), 0, nullptr)));
    if (!thread) {
        --lookupsInFlight;
        return nullptr;
    }
    static_cast<void>(shared.release());  // the thread's now
    error = 0;
    return lookup;
}

unsigned WINAPI NAME_LOOKUP::Thread(void* shared) {
    {
        const std::unique_ptr<std::shared_ptr<NAME_LOOKUP>> lookup(static_cast<std::shared_ptr<NAME_LOOKUP>*>(shared));
        (*lookup)->Run();
    }
    --lookupsInFlight;
    return 0;
}

void NAME_LOOKUP::Run() {
    std::vector<SOCKET_ADDRESS> found;
    int code;
    try {
        code = Resolve(host, port, 0, found);
    } catch (const std::exception&) {
        code = ERROR_NOT_ENOUGH_MEMORY;
    }
    {
        const std::lock_guard guard(lock);
        status = code;
        if (status == 0) addresses = std::move(found);
        done = true;
    }
    SetEvent(ended->Get());
}

bool NAME_LOOKUP::Result(std::vector<SOCKET_ADDRESS>& found, int& error) {
    const std::lock_guard guard(lock);
    if (!done) return false;
    found = addresses;
    error = status;
    return true;
}

}  // namespace keldwick
