// Security identifiers in their binary form.
#pragma once

#include <windows.h>

#include <cstdint>
#include <initializer_list>
#include <span>
#include <vector>

namespace win32 {

// The layout behind a PSID; the sub-authorities follow.
struct SID_HEADER {
    BYTE revision;
    BYTE count;
    BYTE authority[6];  // big-endian
};
static_assert(sizeof(SID_HEADER) == 8);

constexpr BYTE SidRevision = 1;
constexpr BYTE MaxSubAuthorities = 15;
constexpr uint64_t NtAuthority = 5;

// A copy of a SID that can be looked into.
class SID_VALUE {
public:
    SID_VALUE() = default;
    SID_VALUE(uint64_t identifierAuthority, std::vector<DWORD> subAuthorities)
        : authority(identifierAuthority), subs(std::move(subAuthorities)) {}

    // The SID behind a pointer; false: null or malformed.
    bool Load(const void* sid);

    // The SID without its last sub-authority: its domain. A SID without sub-authorities stays itself.
    SID_VALUE Domain() const;

    size_t Bytes() const { return sizeof(SID_HEADER) + subs.size() * sizeof(DWORD); }
    void Store(void* memory) const;  // Bytes() bytes

    uint64_t Authority() const { return authority; }
    const std::vector<DWORD>& Subs() const { return subs; }
    bool operator==(const SID_VALUE&) const = default;

private:
    uint64_t authority = 0;
    std::vector<DWORD> subs;
};

}  // namespace win32
