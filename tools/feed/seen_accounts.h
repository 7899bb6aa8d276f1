// Which account was seen last at each address, and when.
#pragma once

#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "win32/security/sid.h"

namespace tools::feed {

// There may be many, and each line looks for one: the slots are small, so that most stay near the processor, and the
// entries lie side by side.
class SEEN_ACCOUNTS {
public:
    static constexpr size_t Most = 200000;      // places
    static constexpr size_t LongestPlace = 47;  // bytes: an IPv6 address, and one more

    // Whether that account was the last at the place, within so many seconds before or after the time: a clock that was
    // set back makes nothing older than it is.
    bool IsLast(std::string_view place, const win32::SID_VALUE& account, long long time, long long seconds) const;

    // From now on it is the last there. A table that is full first drops what was seen more than so many seconds before
    // or after that time, and everything if nothing was. `place`: LongestPlace bytes at most.
    void Note(std::string_view place, const win32::SID_VALUE& account, long long time, long long seconds);

private:
    using KEY = std::array<char, LongestPlace + 1>;
    struct ENTRY {
        KEY place;
        win32::SID_VALUE account;
        long long time;
    };
    struct SLOT {
        uint32_t number : 18 = 0;  // of the entry, counted from 1; 0: free
        uint32_t tag : 14 = 0;     // of its hash, the upper bits
    };
    static_assert(Most < 1 << 18);

    static KEY KeyOf(std::string_view place);
    size_t Find(const KEY& key, SLOT& wanted) const;
    void MakeRoom(long long time, long long seconds);
    void Rebuild(size_t slotCount);

    std::vector<ENTRY> entries;
    std::vector<SLOT> slots = std::vector<SLOT>(1024);  // a power of two, twice as many as entries or more
};

}  // namespace tools::feed
