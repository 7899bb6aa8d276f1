// The identity tables: who is logged on at which address, and which computers Kerberos service tickets were issued for.
// Both keep the order in which their entries came, and finding an entry costs the same however many there are. One
// thread uses a table.
#pragma once

#include <windows.h>

#include <cstddef>
#include <list>
#include <unordered_map>

#include "identity/logon_index.h"
#include "platform/ip_address.h"
#include "platform/string.h"
#include "platform/time_stamp.h"
#include "protocol/identity_request.h"

namespace keldwick {

// ---- Logons ----

// A logon that the identity server has accepted, or one that is just being reported.
class LOGON_ENTRY {
public:
    TIME_STAMP logonTime;      // the time-to-live counts from here; right once First has been asked for
    TIME_STAMP heartbeatTime;  // of the creation or of the last heartbeat
    IDENTITY_REQUEST request;

private:
    friend class LOGON_TABLE;
    LOGON_ENTRY* previous = nullptr;  // in insertion order
    LOGON_ENTRY* next = nullptr;
    // Entries of one address form a ring, oldest first; the index has the oldest.
    LOGON_ENTRY* nextSame = nullptr;  // null: in no ring
    LOGON_ENTRY* previousSame = nullptr;
};

class LOGON_TABLE {
public:
    LOGON_TABLE() = default;
    ~LOGON_TABLE();
    LOGON_TABLE(const LOGON_TABLE&) = delete;
    LOGON_TABLE& operator=(const LOGON_TABLE&) = delete;

    // The oldest entry whose stored address equals the given one, or null. Entries not yet in the index are not found.
    LOGON_ENTRY* Find(const IP_ADDRESS& address) const;

    // Asks memory for what the table has of an address, which is looked for soon. Of any text: what is no address of
    // version 4 in its usual form does nothing.
    void Expect(const WCHAR* ipText) const;

    // A new last entry, both times now, its request empty. The table owns it.
    LOGON_ENTRY* Append();

    // Puts an entry in the index by the address that its request holds by now; call it once the entry's logon has been
    // reported, before another entry is appended. Without an address the entry stays out of the index.
    void Index(LOGON_ENTRY* entry);

    // Destroys the entry, whether it is in the index or not.
    void Remove(LOGON_ENTRY* entry);

    void Clear();

    // Starts again the time-to-live of the entry that Find gives, if that is the user's, ignoring case; false: it is
    // not, or there is none.
    bool Renew(const IP_ADDRESS& address, const STRING& userName);

    DWORD Count() const { return count; }
    ULONGLONG Changes() const { return changes; }  // entries that came or went, ever
    // The oldest; null: the table is empty. The logon times of all entries are right from here on until the next Renew.
    LOGON_ENTRY* First() const;
    static LOGON_ENTRY* Next(const LOGON_ENTRY* entry) { return entry->next; }

private:
    void Unindex(LOGON_ENTRY* entry);
    void Settle() const;

    LOGON_ENTRY* first = nullptr;
    LOGON_ENTRY* last = nullptr;
    DWORD count = 0;
    ULONGLONG changes = 0;
    LOGON_INDEX index;
    mutable bool renewed = false;  // there are logon times in the index that the entries have not got
};

// ---- Service tickets ----

// The computer that a user's Kerberos service ticket was issued for: bridges the short gap between an event 673 and the
// event 540 that follows it.
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
