// The index of the logons by address. Its slots hold all that a repeated logon is compared with and changes, so that
// this costs one look at a place in memory, however many identities there are: the entries and their requests, which
// lie elsewhere, are not looked at. One thread uses it.
#pragma once

#include <windows.h>

#include <cstddef>
#include <cstdint>

#include "platform/handles.h"
#include "platform/string.h"

namespace keldwick {

class LOGON_ENTRY;

// An address as a request holds it. The bytes behind one of version 4 are 0.
struct STORED_ADDRESS {
    STORED_ADDRESS() = default;
    // Of 4 bytes for version 4, else 16, in network order; null: none.
    STORED_ADDRESS(BYTE addressVersion, const BYTE* addressBytes);
    bool operator==(const STORED_ADDRESS&) const = default;

    BYTE version = 0;  // 0: none, which is in no index
    BYTE bytes[16] = {};
};

// One entry for each address, in a table with open addressing. The index owns no entry.
class LOGON_INDEX {
public:
    // A line of the processor's cache.
    struct alignas(64) SLOT {
        LOGON_ENTRY* entry = nullptr;  // null: free
        FILETIME renewed = {};         // the latest logon time, where the entry has not got it yet; else 0
        STORED_ADDRESS address;
        BYTE nameLength = 0;
        BYTE name[30] = {};  // of the entry's user, in Latin-1

        // Whether the name is exactly that one. False also where a slot cannot hold it: too long, or other letters.
        bool HasName(const STRING& userName) const;
        void SetName(const STRING& userName);
    };
    static_assert(sizeof(SLOT) == 64);

    LOGON_INDEX();

    // Asks memory for the slot of the address, which is looked for soon.
    void Expect(const STORED_ADDRESS& address) const;

    // The slot of the address, or null. It stays valid until the next change of the index.
    SLOT* Find(const STORED_ADDRESS& address) const;

    // Puts the entry there for the address, in place of the one that was, if any, which needs no memory.
    void Put(const STORED_ADDRESS& address, LOGON_ENTRY* entry, const STRING& userName);

    // Takes out the entry of the address, if there is one.
    void Remove(const STORED_ADDRESS& address);

    void Clear();

    // Calls `visit` with every slot that is used, in no order.
    template <class VISIT>
    void ForEach(VISIT visit) const {
        for (size_t i = 0; i < count; ++i)
            if (Slot(i).entry != nullptr) visit(Slot(i));
    }

private:
    struct SLOTS_CLOSER {
        using TYPE = SLOT*;
        static void Close(TYPE slots) { VirtualFree(slots, 0, MEM_RELEASE); }
    };
    using SLOTS = OWNER<SLOTS_CLOSER>;

    SLOT& Slot(size_t place) const { return slots.Get()[place]; }
    size_t HomeOf(const STORED_ADDRESS& address) const;
    size_t PlaceOf(const STORED_ADDRESS& address) const;
    size_t After(size_t place) const { return (place + 1) & (count - 1); }
    void Grow();

    SLOTS slots;       // pages of their own: zeros are free slots, and a large table gets huge pages
    size_t count = 0;  // of slots: a power of two, or 0
    size_t used = 0;
    const uint64_t seed;  // random, so that an attacker cannot choose addresses that share a place
};

}  // namespace keldwick
