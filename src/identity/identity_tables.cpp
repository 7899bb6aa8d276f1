#include "identity/identity_tables.h"

#include <utility>

#include "platform/string.h"

namespace keldwick {

namespace {

STORED_ADDRESS Stored(const IP_ADDRESS& address) { return {AddressVersion(address), AddressBytes(address)}; }

// Of a text "a.b.c.d" in decimal, or none. No more than a guess at what the system makes of the text.
STORED_ADDRESS PlainAddress(const WCHAR* text) {
    BYTE bytes[4];
    for (BYTE& byte : bytes) {
        ULONGLONG value = 0;
        const WCHAR* const end = ReadDigits(text, 10, value);
        if (end == text || value > 0xFF || *end != (&byte == bytes + 3 ? 0 : TEXT('.'))) return {};
        byte = static_cast<BYTE>(value);
        text = end + 1;
    }
    return {4, bytes};
}

STORED_ADDRESS AddressOf(const LOGON_ENTRY* entry) {
    return {entry->request.AddressVersion(), entry->request.AddressBytes()};
}

size_t KeyOf(const WCHAR* userName, const WCHAR* ipAddress) {
    return CollationHash(userName) * 31 + CollationHash(ipAddress);
}

}  // namespace

// ---- Logons ----

LOGON_TABLE::~LOGON_TABLE() { Clear(); }

void LOGON_TABLE::Expect(const WCHAR* ipText) const { index.Expect(PlainAddress(ipText)); }

LOGON_ENTRY* LOGON_TABLE::Find(const IP_ADDRESS& address) const {
    const LOGON_INDEX::SLOT* const slot = index.Find(Stored(address));
    return slot != nullptr ? slot->entry : nullptr;
}

LOGON_ENTRY* LOGON_TABLE::Append() {
    auto* const entry = new LOGON_ENTRY;
    entry->logonTime = entry->heartbeatTime = TIME_STAMP::Now();
    entry->previous = last;
    (last != nullptr ? last->next : first) = entry;
    last = entry;
    ++count;
    ++changes;
    return entry;
}

void LOGON_TABLE::Index(LOGON_ENTRY* entry) {
    const STORED_ADDRESS address = AddressOf(entry);
    if (address.version == 0 || entry->nextSame != nullptr) return;
    const LOGON_INDEX::SLOT* const slot = index.Find(address);
    if (slot == nullptr) {
        entry->nextSame = entry->previousSame = entry;
        index.Put(address, entry, entry->request.UserName());
        return;
    }
    entry->nextSame = slot->entry;
    entry->previousSame = slot->entry->previousSame;
    entry->previousSame->nextSame = entry;
    slot->entry->previousSame = entry;
}

void LOGON_TABLE::Unindex(LOGON_ENTRY* entry) {
    if (entry->nextSame == nullptr) return;
    const STORED_ADDRESS address = AddressOf(entry);
    if (entry->nextSame == entry) {
        index.Remove(address);
    } else if (index.Find(address)->entry == entry) {
        index.Put(address, entry->nextSame, entry->nextSame->request.UserName());
    }
    entry->previousSame->nextSame = entry->nextSame;
    entry->nextSame->previousSame = entry->previousSame;
    entry->nextSame = nullptr;
}

void LOGON_TABLE::Remove(LOGON_ENTRY* entry) {
    Unindex(entry);
    (entry->previous != nullptr ? entry->previous->next : first) = entry->next;
    (entry->next != nullptr ? entry->next->previous : last) = entry->previous;
    --count;
    ++changes;
    delete entry;
}

bool LOGON_TABLE::Renew(const IP_ADDRESS& address, const STRING& userName) {
    LOGON_INDEX::SLOT* const slot = index.Find(Stored(address));
    if (slot == nullptr) return false;
    if (!slot->HasName(userName) && !slot->entry->request.HasUserName(userName)) return false;
    slot->renewed = TIME_STAMP::Now().FileTime();
    renewed = true;
    return true;
}

// Gives the entries the logon times that the index has for them.
void LOGON_TABLE::Settle() const {
    if (!renewed) return;
    index.ForEach([](LOGON_INDEX::SLOT& slot) {
        if (slot.renewed.dwHighDateTime == 0) return;
        slot.entry->logonTime = TIME_STAMP::FromFileTime(std::exchange(slot.renewed, {}));
    });
    renewed = false;
}

LOGON_ENTRY* LOGON_TABLE::First() const {
    Settle();
    return first;
}

void LOGON_TABLE::Clear() {
    changes += count;
    while (first != nullptr) {
        LOGON_ENTRY* const entry = first;
        first = entry->next;
        delete entry;
    }
    last = nullptr;
    count = 0;
    index.Clear();
    renewed = false;
}

// ---- Service tickets ----

SERVICE_TICKET_ENTRY* SERVICE_TICKET_TABLE::Find(const WCHAR* userName, const WCHAR* ipAddress) {
    const auto [begin, end] = index.equal_range(KeyOf(userName, ipAddress));
    SERVICE_TICKET_ENTRY* oldest = nullptr;
    for (auto candidate = begin; candidate != end; ++candidate) {
        SERVICE_TICKET_ENTRY& ticket = *candidate->second;
        if (!ticket.userName.EqualsNoCase(userName) || !ticket.ipAddress.EqualsNoCase(ipAddress)) continue;
        if (oldest == nullptr || ticket.number < oldest->number) oldest = &ticket;
    }
    return oldest;
}

SERVICE_TICKET_ENTRY* SERVICE_TICKET_TABLE::Append(const STRING& userName, const STRING& computerName,
                                                   const WCHAR* ipAddress) {
    SERVICE_TICKET_ENTRY ticket{.time = TIME_STAMP::Now(),
                                .userName = userName,
                                .computerName = computerName,
                                .ipAddress = STRING(ipAddress),
                                .key = KeyOf(userName.Text(), ipAddress),
                                .number = nextNumber++};
    const auto entry = entries.insert(entries.end(), std::move(ticket));
    index.emplace(entry->key, entry);
    return &*entry;
}

void SERVICE_TICKET_TABLE::Remove(SERVICE_TICKET_ENTRY* entry) {
    const auto [begin, end] = index.equal_range(entry->key);
    for (auto candidate = begin; candidate != end; ++candidate) {
        if (&*candidate->second != entry) continue;
        const ENTRIES::iterator position = candidate->second;
        index.erase(candidate);
        entries.erase(position);
        return;
    }
}

void SERVICE_TICKET_TABLE::Clear() {
    index.clear();
    entries.clear();
}

}  // namespace keldwick
