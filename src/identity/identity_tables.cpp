#include "identity/identity_tables.h"

#include <cstring>
#include <random>

#include "platform/string.h"

namespace keldwick {

namespace {

constexpr size_t FirstBucketCount = 64;

constexpr DWORD AddressLengthOf(BYTE version) { return version == 4 ? 4 : 16; }

uint64_t RandomSeed() {
    std::random_device device;
    return static_cast<uint64_t>(device()) << 32 | device();
}

// Mixes one word in. Which words fall together depends on the state before, and so on the seed.
uint64_t Mix(uint64_t state, uint64_t word) {
    state = (state ^ word) * 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
    return state ^ state >> 32;
}

bool HasAddress(const LOGON_ENTRY& entry, BYTE version, const BYTE* bytes) {
    return entry.request.AddressVersion() == version &&
           std::memcmp(entry.request.AddressBytes(), bytes, AddressLengthOf(version)) == 0;
}

size_t KeyOf(const WCHAR* userName, const WCHAR* ipAddress) {
    return CollationHash(userName) * 31 + CollationHash(ipAddress);
}

}  // namespace

// ---- Logons ----

LOGON_TABLE::LOGON_TABLE() : seed(RandomSeed()) {}

LOGON_TABLE::~LOGON_TABLE() { Clear(); }

LOGON_ENTRY* LOGON_TABLE::Find(const IP_ADDRESS& address) const {
    const BYTE version = AddressVersion(address);
    const BYTE* const bytes = AddressBytes(address);
    return version != 0 && bytes != nullptr ? Head(version, bytes) : nullptr;
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
    const BYTE* const bytes = entry->request.AddressBytes();
    if (bytes == nullptr || entry->nextSame != nullptr) return;
    LOGON_ENTRY* const head = Head(entry->request.AddressVersion(), bytes);
    if (head == nullptr) {
        entry->nextSame = entry->previousSame = entry;
        LinkHead(entry);
        return;
    }
    entry->nextSame = head;
    entry->previousSame = head->previousSame;
    entry->previousSame->nextSame = entry;
    head->previousSame = entry;
}

void LOGON_TABLE::Remove(LOGON_ENTRY* entry) {
    Unindex(entry);
    (entry->previous != nullptr ? entry->previous->next : first) = entry->next;
    (entry->next != nullptr ? entry->next->previous : last) = entry->previous;
    --count;
    ++changes;
    delete entry;
}

void LOGON_TABLE::Renew(LOGON_ENTRY* entry) { entry->logonTime = TIME_STAMP::Now(); }

void LOGON_TABLE::Clear() {
    changes += count;
    while (first != nullptr) {
        LOGON_ENTRY* const entry = first;
        first = entry->next;
        delete entry;
    }
    last = nullptr;
    count = 0;
    buckets.reset();
    bucketCount = headCount = 0;
}

// ---- The index of the logons ----

size_t LOGON_TABLE::BucketOf(BYTE version, const BYTE* bytes) const {
    uint64_t hash = Mix(seed, version);
    const DWORD length = AddressLengthOf(version);
    for (DWORD i = 0; i < length; i += sizeof(DWORD)) {
        DWORD word;
        std::memcpy(&word, bytes + i, sizeof(word));
        hash = Mix(hash, word);
    }
    return static_cast<size_t>(hash) & (bucketCount - 1);
}

// The oldest indexed entry of that address.
LOGON_ENTRY* LOGON_TABLE::Head(BYTE version, const BYTE* bytes) const {
    if (bucketCount == 0) return nullptr;
    LOGON_ENTRY* entry = buckets[BucketOf(version, bytes)];
    while (entry != nullptr && !HasAddress(*entry, version, bytes)) entry = entry->nextInBucket;
    return entry;
}

void LOGON_TABLE::LinkHead(LOGON_ENTRY* entry) {
    if (headCount >= bucketCount) GrowBuckets();
    LOGON_ENTRY*& bucket = buckets[BucketOf(entry->request.AddressVersion(), entry->request.AddressBytes())];
    entry->nextInBucket = bucket;
    entry->heads = true;
    bucket = entry;
    ++headCount;
}

void LOGON_TABLE::UnlinkHead(LOGON_ENTRY* entry) {
    LOGON_ENTRY** link = &buckets[BucketOf(entry->request.AddressVersion(), entry->request.AddressBytes())];
    while (*link != entry) link = &(*link)->nextInBucket;
    *link = entry->nextInBucket;
    entry->heads = false;
    --headCount;
}

void LOGON_TABLE::Unindex(LOGON_ENTRY* entry) {
    if (entry->nextSame == nullptr) return;
    if (entry->heads) {
        UnlinkHead(entry);
        if (entry->nextSame != entry) LinkHead(entry->nextSame);
    }
    entry->previousSame->nextSame = entry->nextSame;
    entry->nextSame->previousSame = entry->previousSame;
    entry->nextSame = nullptr;
}

void LOGON_TABLE::GrowBuckets() {
    const size_t oldCount = bucketCount;
    const std::unique_ptr<LOGON_ENTRY*[]> old = std::move(buckets);
    bucketCount = oldCount == 0 ? FirstBucketCount : 2 * oldCount;
    buckets = std::make_unique<LOGON_ENTRY*[]>(bucketCount);
    headCount = 0;
    for (size_t i = 0; i < oldCount; ++i) {
        for (LOGON_ENTRY* entry = old[i]; entry != nullptr;) {
            LOGON_ENTRY* const next = entry->nextInBucket;
            LinkHead(entry);
            entry = next;
        }
    }
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
