#include "identity/service_ticket_table.h"

#include "platform/collation_hash.h"

namespace keldwick {

namespace {

size_t KeyOf(const WCHAR* userName, const WCHAR* ipAddress) {
    return CollationHash(userName) * 31 + CollationHash(ipAddress);
}

}  // namespace

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
