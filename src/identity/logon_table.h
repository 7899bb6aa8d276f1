// Who is logged on at which address: the logons that the identity server has accepted, in the order in which they came.
// Finding an address costs the same however many entries there are. One thread uses a table.
#pragma once

#include <windows.h>

#include <cstddef>
#include <memory>

#include "platform/ip_address.h"
#include "platform/time_stamp.h"
#include "protocol/identity_request.h"

namespace keldwick {

class LOGON_ENTRY {
public:
    TIME_STAMP logonTime;      // the time-to-live counts from here
    TIME_STAMP heartbeatTime;  // of the creation or of the last heartbeat
    IDENTITY_REQUEST request;

private:
    friend class LOGON_TABLE;
    LOGON_ENTRY* previous = nullptr;  // in insertion order
    LOGON_ENTRY* next = nullptr;
    // Entries of one address form a ring, oldest first; only the oldest stands in its bucket's chain.
    LOGON_ENTRY* nextSame = nullptr;  // null: not in the index
    LOGON_ENTRY* previousSame = nullptr;
    LOGON_ENTRY* nextInBucket = nullptr;
    bool heads = false;  // stands in a bucket's chain
};

class LOGON_TABLE {
public:
    LOGON_TABLE();
    ~LOGON_TABLE();
    LOGON_TABLE(const LOGON_TABLE&) = delete;
    LOGON_TABLE& operator=(const LOGON_TABLE&) = delete;

    // The oldest entry whose stored address equals the given one, or null. Entries not yet in the index are not found.
    LOGON_ENTRY* Find(const IP_ADDRESS& address) const;

    // A new last entry, both times now, its request empty. The table owns it.
    LOGON_ENTRY* Append();

    // Puts an entry in the index by the address that its request holds by now; call it once the entry's logon has been
    // reported, before another entry is appended. Without an address the entry stays out of the index.
    void Index(LOGON_ENTRY* entry);

    // Destroys the entry, whether it is in the index or not.
    void Remove(LOGON_ENTRY* entry);

    void Clear();

    // Starts the entry's time-to-live again.
    void Renew(LOGON_ENTRY* entry);

    DWORD Count() const { return count; }
    ULONGLONG Changes() const { return changes; }  // entries that came or went, ever
    LOGON_ENTRY* First() const { return first; }   // the oldest; null: the table is empty
    static LOGON_ENTRY* Next(const LOGON_ENTRY* entry) { return entry->next; }

private:
    size_t BucketOf(BYTE version, const BYTE* bytes) const;
    LOGON_ENTRY* Head(BYTE version, const BYTE* bytes) const;
    void LinkHead(LOGON_ENTRY* entry);
    void UnlinkHead(LOGON_ENTRY* entry);
    void Unindex(LOGON_ENTRY* entry);
    void GrowBuckets();

    LOGON_ENTRY* first = nullptr;
    LOGON_ENTRY* last = nullptr;
    DWORD count = 0;
    ULONGLONG changes = 0;
    std::unique_ptr<LOGON_ENTRY*[]> buckets;
    size_t bucketCount = 0;  // a power of two, or 0
    size_t headCount = 0;    // addresses in the index
    const uint64_t seed;     // random, so that nobody can choose addresses that share a bucket
};

}  // namespace keldwick
