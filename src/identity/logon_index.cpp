#include "identity/logon_index.h"

#include <algorithm>
#include <bit>
#include <cstring>
#include <iterator>
#include <new>
#include <random>
#include <utility>

namespace keldwick {

namespace {

constexpr size_t FirstCount = 64;
constexpr BYTE NotHeld = 0xFF;  // a name's length where the slot does not hold it

constexpr DWORD LengthOf(BYTE version) { return version == 4 ? 4 : 16; }

uint64_t RandomSeed() {
    std::random_device device;
    return static_cast<uint64_t>(device()) << 32 | device();
}

// Mixes one word in. Which words fall together depends on the state before, and so on the seed.
uint64_t Mix(uint64_t state, uint64_t word) {
    state = (state ^ word) * 0x9E3779B97F4A7C15u;  // 2^64 divided by the golden ratio
    return state ^ state >> 32;
}

}  // namespace

STORED_ADDRESS::STORED_ADDRESS(BYTE addressVersion, const BYTE* addressBytes) {
    if (addressBytes == nullptr) return;
    version = addressVersion;
    std::memcpy(bytes, addressBytes, LengthOf(version));
}

bool LOGON_INDEX::SLOT::HasName(const STRING& userName) const {
    const TEXT_VIEW text = userName.View();
    return nameLength != NotHeld && std::equal(text.begin(), text.end(), name, name + nameLength);
}

void LOGON_INDEX::SLOT::SetName(const STRING& userName) {
    const TEXT_VIEW text = userName.View();
    const bool fits = text.size() <= std::size(name) &&
                      std::all_of(text.begin(), text.end(), [](WCHAR unit) { return unit <= 0xFF; });
    nameLength = fits ? static_cast<BYTE>(text.size()) : NotHeld;
    if (fits) std::transform(text.begin(), text.end(), name, [](WCHAR unit) { return static_cast<BYTE>(unit); });
}

LOGON_INDEX::LOGON_INDEX() : seed(RandomSeed()) {}

// By words of 32 bits, each of whose bits a product of 64 carries into its upper half. The seed comes in once more at
// the end: what addresses that differ little have in common then does not show in their places. The place is the upper
// bits, so that a table that grows is filled in the order of its places.
size_t LOGON_INDEX::HomeOf(const STORED_ADDRESS& address) const {
    uint64_t hash = Mix(seed, address.version);
    for (DWORD i = 0; i < LengthOf(address.version); i += sizeof(DWORD)) {
        DWORD word;
        std::memcpy(&word, address.bytes + i, sizeof(word));
        hash = Mix(hash, word);
    }
    return static_cast<size_t>(Mix(hash, seed) >> std::countl_zero(uint64_t{count} - 1));
}

// Where the address is, or else the free slot where it would be. There must be slots.
size_t LOGON_INDEX::PlaceOf(const STORED_ADDRESS& address) const {
    size_t at = HomeOf(address);
    while (Slot(at).entry != nullptr && Slot(at).address != address) at = After(at);
    return at;
}

void LOGON_INDEX::Expect(const STORED_ADDRESS& address) const {
    if (count != 0 && address.version != 0) __builtin_prefetch(&Slot(HomeOf(address)));
}

LOGON_INDEX::SLOT* LOGON_INDEX::Find(const STORED_ADDRESS& address) const {
    if (count == 0) return nullptr;
    SLOT& slot = Slot(PlaceOf(address));
    return slot.entry != nullptr ? &slot : nullptr;
}

void LOGON_INDEX::Put(const STORED_ADDRESS& address, LOGON_ENTRY* entry, const STRING& userName) {
    SLOT* slot = Find(address);
    if (slot == nullptr) {
        if (4 * used >= 3 * count) Grow();
        slot = &Slot(PlaceOf(address));
        ++used;
    }
    slot->entry = entry;
    slot->renewed = {};
    slot->address = address;
    slot->SetName(userName);
}

// What would not be found behind the free slot moves into it.
void LOGON_INDEX::Remove(const STORED_ADDRESS& address) {
    const SLOT* const slot = Find(address);
    if (slot == nullptr) return;
    auto gap = static_cast<size_t>(slot - slots.Get());
    for (size_t at = After(gap); Slot(at).entry != nullptr; at = After(at)) {
        const size_t fromHome = (at - HomeOf(Slot(at).address)) & (count - 1);
        const size_t fromGap = (at - gap) & (count - 1);
        if (fromHome < fromGap) continue;
        Slot(gap) = Slot(at);
        gap = at;
    }
    Slot(gap).entry = nullptr;
    --used;
}

void LOGON_INDEX::Clear() {
    slots.Reset();
    count = used = 0;
}

void LOGON_INDEX::Grow() {
    const size_t newCount = count == 0 ? FirstCount : 2 * count;
    SLOTS fresh(
        static_cast<SLOT*>(VirtualAlloc(nullptr, newCount * sizeof(SLOT), MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)));
    if (!fresh) throw std::bad_alloc();
    const SLOTS old = std::exchange(slots, std::move(fresh));
    const size_t oldCount = std::exchange(count, newCount);
    for (size_t i = 0; i < oldCount; ++i) {
        const SLOT& slot = old.Get()[i];
        if (slot.entry != nullptr) Slot(PlaceOf(slot.address)) = slot;
    }
}

}  // namespace keldwick
