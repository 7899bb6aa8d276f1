// Which computer a user's Kerberos service ticket was last issued for: bridges the short gap between an event 673 and
// the event 540 that follows it. Finding a ticket costs the same however many there are. One thread uses a table.
#pragma once

#include <windows.h>

#include <cstddef>
#include <list>
#include <unordered_map>

#include "platform/string.h"
#include "platform/time_stamp.h"

namespace keldwick {

struct SERVICE_TICKET_ENTRY {
    TIME_STAMP time;       // of its creation; never refreshed
    STRING userName;       // DOMAIN\user
    STRING computerName;   // DOMAIN\host, without the computer account's dollar sign
    STRING ipAddress;      // as the event gave it
    size_t key = 0;        // of the index: equal for names and addresses that are equal ignoring case
    ULONGLONG number = 0;  // of the entry in insertion order
};

class SERVICE_TICKET_TABLE {
public:
    // The oldest entry whose user name and address text both equal the given ones, ignoring case, or null.
    SERVICE_TICKET_ENTRY* Find(const WCHAR* userName, const WCHAR* ipAddress);

    // A new last entry, its time now. The table owns it.
    SERVICE_TICKET_ENTRY* Append(const STRING& userName, const STRING& computerName, const WCHAR* ipAddress);

    // Destroys the entry, which must be the table's.
    void Remove(SERVICE_TICKET_ENTRY* entry);

    void Clear();

    DWORD Count() const { return static_cast<DWORD>(entries.size()); }

    // Destroys, oldest first, every entry for which the condition is true.
    template <class CONDITION>
    void RemoveIf(CONDITION condition) {
        for (auto entry = entries.begin(); entry != entries.end();) {
            SERVICE_TICKET_ENTRY& ticket = *entry++;
            if (condition(ticket)) Remove(&ticket);
        }
    }

private:
    using ENTRIES = std::list<SERVICE_TICKET_ENTRY>;
    using INDEX = std::unordered_multimap<size_t, ENTRIES::iterator>;

    ENTRIES entries;  // in insertion order
    INDEX index;
    ULONGLONG nextNumber = 0;
};

}  // namespace keldwick
