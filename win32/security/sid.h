// Security identifiers (SIDs): as values, in their binary form and as text.
#pragma once

#include <windows.h>

#include <array>
#include <cstdint>
#include <initializer_list>
#include <optional>
#include <span>
#include <string>
#include <string_view>

namespace win32 {

constexpr uint64_t NtAuthority = 5;

constexpr std::string_view BuiltinSids("\x01\x02\x00\x00\x00\x00\x00\x05\x20\x00\x00\x00", 12);  // S-1-5-32-...

class SID_VALUE {
public:
    static constexpr size_t MaxSubs = 15;

    SID_VALUE() = default;
    SID_VALUE(uint64_t identifierAuthority, std::initializer_list<DWORD> subAuthorities);  // MaxSubs at most

    // The SID at that address, whose bytes are there as far as it says itself; nothing: null or malformed.
    static std::optional<SID_VALUE> At(const void* sid);

    // Nothing: the bytes, or the text ("S-1-5-21-...", in any case), are not one whole SID.
    static std::optional<SID_VALUE> FromBytes(std::string_view bytes);
    static std::optional<SID_VALUE> FromText(std::string_view text);

    std::string Bytes() const;
    std::string Text() const;  // an authority beyond 32 bits is written as twelve hexadecimal digits

    // The SID without its last sub-authority: its domain. A SID without sub-authorities stays itself.
    SID_VALUE Domain() const;

    // False: it has MaxSubs sub-authorities already.
    bool Append(DWORD sub);

    std::span<const DWORD> Subs() const { return {subs.data(), count}; }
    bool operator==(const SID_VALUE&) const = default;

private:
    uint64_t authority = 0;
    DWORD count = 0;
    std::array<DWORD, MaxSubs> subs = {};  // 0 where there are none
};

}  // namespace win32
