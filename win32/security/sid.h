// Security identifiers (SIDs): as values, in their binary form and as text.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace win32 {

constexpr uint64_t NtAuthority = 5;

class SID_VALUE {
public:
    SID_VALUE() = default;
    SID_VALUE(uint64_t identifierAuthority, std::vector<DWORD> subAuthorities)
        : authority(identifierAuthority), subs(std::move(subAuthorities)) {}

    // The SID at that address, whose bytes are there as far as it says itself; nothing: null or malformed.
    static std::optional<SID_VALUE> At(const void* sid);

    // Nothing: the bytes, or the text ("S-1-5-21-...", in any case), are not one whole SID.
    static std::optional<SID_VALUE> FromBytes(std::string_view bytes);
    static std::optional<SID_VALUE> FromText(std::string_view text);

    std::string Bytes() const;
    std::string Text() const;  // an authority beyond 32 bits is written as twelve hexadecimal digits

    // The SID without its last sub-authority: its domain. A SID without sub-authorities stays itself.
    SID_VALUE Domain() const;

    const std::vector<DWORD>& Subs() const { return subs; }
    bool operator==(const SID_VALUE&) const = default;

private:
    uint64_t authority = 0;
    std::vector<DWORD> subs;
};

}  // namespace win32
