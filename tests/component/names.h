// The tests' name server, in place of the C library's; numeric addresses go there.
#pragma once

#include <netdb.h>

#include <condition_variable>
#include <map>
#include <mutex>
#include <string>
#include <vector>

// Of each name, its IPv4 addresses. "hang.example" gets no answer before ReviveNameServer; all others are not found.
inline std::map<std::string, std::vector<std::string>> knownNames;

namespace name_server {
inline std::mutex lock;
inline std::condition_variable changed;
inline int hanging = 0;
inline bool dead = true;
}  // namespace name_server

// Waits until that many look-ups hang, lets them end, and waits until they have.
inline void ReviveNameServer(int lookups) {
    using namespace name_server;
    std::unique_lock guard(lock);
    changed.wait(guard, [=] { return hanging >= lookups; });
    dead = false;
    changed.notify_all();
    changed.wait(guard, [] { return hanging == 0; });
    dead = true;
}

extern "C" {
int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
[[gnu::used]] inline int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints,
                                            addrinfo** result) {
    using namespace name_server;
    if (hints->ai_flags & AI_NUMERICHOST) return __real_getaddrinfo(node, service, hints, result);
    if (node == std::string("hang.example")) {
        std::unique_lock guard(lock);
        ++hanging;
        changed.notify_all();
        changed.wait(guard, [] { return !dead; });
        --hanging;
        changed.notify_all();
        return EAI_AGAIN;
    }
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    addrinfo** end = result;
    for (const std::string& address : knownNames[node]) {
        if (const int code = __real_getaddrinfo(address.c_str(), service, &numeric, end)) return code;
        end = &(*end)->ai_next;
    }
    return end == result ? EAI_NONAME : 0;
}
}
