#include "tools/feed/seen_accounts.h"

#include <algorithm>
#include <cstdlib>
#include <functional>

namespace tools::feed {

SEEN_ACCOUNTS::KEY SEEN_ACCOUNTS::KeyOf(std::string_view place) {
    KEY key = {};
    place.copy(key.data(), LongestPlace);
    return key;
}

// The slot of that key, or the free one that it may take. `wanted`: as a slot of it is, without the number.
size_t SEEN_ACCOUNTS::Find(const KEY& key, SLOT& wanted) const {
    const size_t hash = std::hash<std::string_view>()({key.data(), key.size()});
    wanted.tag = hash >> 50;
    size_t at = hash % slots.size();
    for (; slots[at].number != 0; at = (at + 1) % slots.size())
        if (slots[at].tag == wanted.tag && entries[slots[at].number - 1].place == key) break;
    return at;
}

bool SEEN_ACCOUNTS::IsLast(std::string_view place, const win32::SID_VALUE& account, long long time,
                           long long seconds) const {
    SLOT slot;
    slot = slots[Find(KeyOf(place), slot)];
    if (slot.number == 0) return false;
    const ENTRY& entry = entries[slot.number - 1];
    return entry.account == account && std::abs(time - entry.time) <= seconds;
}

void SEEN_ACCOUNTS::Note(std::string_view place, const win32::SID_VALUE& account, long long time, long long seconds) {
    if (entries.size() >= Most) MakeRoom(time, seconds);
    if (2 * (entries.size() + 1) > slots.size()) Rebuild(8 * slots.size());
    const KEY key = KeyOf(place);
    SLOT wanted;
    SLOT& slot = slots[Find(key, wanted)];
    if (slot.number == 0) {
        entries.push_back({key, account, time});
        wanted.number = static_cast<uint32_t>(entries.size());
        slot = wanted;
    }
    entries[slot.number - 1] = {key, account, time};
}

void SEEN_ACCOUNTS::MakeRoom(long long time, long long seconds) {
    std::erase_if(entries, [&](const ENTRY& each) { return std::abs(time - each.time) > seconds; });
    if (entries.size() >= Most) entries.clear();
    Rebuild(slots.size());
}

void SEEN_ACCOUNTS::Rebuild(size_t slotCount) {
    slots.assign(slotCount, {});
    for (size_t i = 0; i < entries.size(); ++i) {
        SLOT slot;
        const size_t at = Find(entries[i].place, slot);
        slot.number = static_cast<uint32_t>(i + 1);
        slots[at] = slot;
    }
}

}  // namespace tools::feed
