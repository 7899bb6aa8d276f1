#include "platform/collation_hash.h"

#include <string>
#include <string_view>

namespace keldwick {

namespace {

std::string_view Bytes(const void* data, size_t size) { return {static_cast<const char*>(data), size}; }

int SortKey(const WCHAR* text, char* key, size_t size) {
    return LCMapStringW(GetThreadLocale(), LCMAP_SORTKEY | NORM_IGNORECASE, text, -1, reinterpret_cast<LPWSTR>(key),
                        static_cast<int>(size));
}

}  // namespace

// Texts that compare equal have equal sort keys. Where the system has no key to give, all texts share one hash.
size_t CollationHash(const WCHAR* text) {
    char shortKey[512];
    int size = SortKey(text, shortKey, sizeof(shortKey));
    if (size > 0) return std::hash<std::string_view>()(Bytes(shortKey, static_cast<size_t>(size)));
    size = SortKey(text, nullptr, 0);
    if (size <= 0) return 0;
    std::string key(static_cast<size_t>(size), '\0');
    size = SortKey(text, key.data(), key.size());
    return size > 0 ? std::hash<std::string_view>()(Bytes(key.data(), static_cast<size_t>(size))) : 0;
}

}  // namespace keldwick
