// The groups of one user, in the order found, each listed once. Entries stay where they are until the list goes.
#pragma once

#include <windows.h>

#include <cstddef>
#include <list>
#include <unordered_map>

#include "platform/string.h"

namespace keldwick {

struct GROUP {
    STRING domain;  // the NT4 name, DOMAIN\group; empty: it could not be translated
    STRING dn;      // as the directory gave it
};

class GROUP_LIST {
public:
    using ENTRIES = std::list<GROUP>;

    // A new last entry with that DN, or null when an entry's DN already equals it, ignoring case.
    GROUP* Add(const WCHAR* dn);

    DWORD Count() const { return static_cast<DWORD>(entries.size()); }
    bool IsEmpty() const { return entries.empty(); }
    ENTRIES::const_iterator begin() const { return entries.begin(); }
    ENTRIES::const_iterator end() const { return entries.end(); }

private:
    ENTRIES entries;
    std::unordered_multimap<size_t, const GROUP*> index;  // by a hash that is equal for DNs equal ignoring case
};

}  // namespace keldwick
