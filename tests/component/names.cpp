#include "names.h"

#include <arpa/inet.h>
#include <netdb.h>

#include <condition_variable>
#include <mutex>

std::map<std::string, std::vector<std::string>> knownNames;

namespace {

std::mutex lock;
std::condition_variable changed;
int hanging = 0;
bool dead = true;

}  // namespace

extern "C" int __real_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result);
extern "C" int __wrap_getaddrinfo(const char* node, const char* service, const addrinfo* hints, addrinfo** result) {
    if (hints->ai_flags & AI_NUMERICHOST) return __real_getaddrinfo(node, service, hints, result);
    const std::string name = node;
    if (name == "hang.example") {
        std::unique_lock guard(lock);
        ++hanging;
        changed.notify_all();
        changed.wait(guard, [] { return !dead; });
        --hanging;
        changed.notify_all();
        return EAI_AGAIN;
    }
    addrinfo* first = nullptr;
    addrinfo** end = &first;
    const auto known = knownNames.find(name);
    if (known == knownNames.end()) return EAI_NONAME;
    addrinfo numeric = *hints;
    numeric.ai_flags |= AI_NUMERICHOST;
    for (const std::string& address : known->second) {
        if (const int code = __real_getaddrinfo(address.c_str(), service, &numeric, end)) return code;
        end = &(*end)->ai_next;
    }
    *result = first;
    return 0;
}

void ReviveNameServer(int lookups) {
    std::unique_lock guard(lock);
    changed.wait(guard, [=] { return hanging == lookups; });
    dead = false;
    changed.notify_all();
    changed.wait(guard, [] { return hanging == 0; });
    dead = true;
}

int HangingLookups() {
    const std::lock_guard guard(lock);
    return hanging;
}
