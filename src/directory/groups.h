// A user's groups, nested ones included, collected depth first: the primary group and everything it is nested in, then
// each group that the user is a member of, followed at once by its own nesting. Out of COM memory: COM_ERROR.
#pragma once

#include <windows.h>

#include <cstddef>
#include <list>
#include <unordered_map>

#include "directory/directory_binding.h"
#include "platform/string.h"

namespace keldwick {

struct GROUP {
    STRING domain;  // the NT4 name, DOMAIN\group; empty: it could not be translated
    STRING dn;      // as the directory gave it
};

// The groups of one user, in the order found, each listed once. Entries stay where they are until the list goes.
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

// True: the walk completed. False: the list keeps what was found until then. A missing primary group is no failure.
bool GetGroups(const WCHAR* nt4Name, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the group and what it is nested in. A group already listed is passed over, and is no failure.
bool AddGroup(const WCHAR* groupDn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the groups of an open object, and theirs; the object's DN stands in messages.
bool AddObjectGroups(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

// Adds the object's primary group as AddGroup does, found by the object's SID and the attribute primaryGroupID.
bool GetPrimaryGroup(IADs* object, const WCHAR* dn, GROUP_LIST& list, const DIRECTORY_BINDING* binding);

}  // namespace keldwick
