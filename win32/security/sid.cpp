#include "win32/security/sid.h"

#include <sddl.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "win32/text/last_error.h"
#include "win32/text/numbers.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// The layout of a SID; the sub-authorities follow.
struct SID_HEADER {
    BYTE revision;
    BYTE count;
    BYTE authority[6];  // big-endian
};
static_assert(sizeof(SID_HEADER) == 8);

constexpr BYTE SidRevision = 1;
constexpr int AuthorityDigits = 12;  // of an authority that is written in hexadecimal

size_t LengthOf(const SID_HEADER& header) { return sizeof(header) + header.count * sizeof(DWORD); }

// "4294967295", or "0x" and twelve hexadecimal digits.
bool TakeAuthority(std::string_view& text, uint64_t& authority) {
    if (!text.starts_with("0x") && !text.starts_with("0X")) return TakeNumber(text, authority) && authority <= MAXDWORD;
    const std::string_view digits = text.substr(2, AuthorityDigits);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), authority, 16);
    if (error != std::errc() || end - digits.data() != AuthorityDigits || authority <= MAXDWORD) return false;
    text.remove_prefix(2 + AuthorityDigits);
    return true;
}

}  // namespace

SID_VALUE::SID_VALUE(uint64_t identifierAuthority, std::initializer_list<DWORD> subAuthorities)
    : authority(identifierAuthority) {
    for (const DWORD sub : subAuthorities) Append(sub);
}

std::optional<SID_VALUE> SID_VALUE::At(const void* sid) {
    if (sid == nullptr) return std::nullopt;
    SID_HEADER header;
    memcpy(&header, sid, sizeof(header));
    if (header.revision != SidRevision || header.count > MaxSubs) return std::nullopt;
    SID_VALUE value;
    for (const BYTE byte : header.authority) value.authority = value.authority << 8 | byte;
    value.count = header.count;
    memcpy(value.subs.data(), static_cast<const BYTE*>(sid) + sizeof(header), header.count * sizeof(DWORD));
    return value;
}

std::optional<SID_VALUE> SID_VALUE::FromBytes(std::string_view bytes) {
    SID_HEADER header;
    if (bytes.size() < sizeof(header)) return std::nullopt;
    memcpy(&header, bytes.data(), sizeof(header));
    return bytes.size() == LengthOf(header) ? At(bytes.data()) : std::nullopt;
}

std::optional<SID_VALUE> SID_VALUE::FromText(std::string_view text) {
    constexpr std::string_view prefix = "S-1-";
    SID_VALUE value;
    if (!text.starts_with(prefix) && !text.starts_with("s-1-")) return std::nullopt;
    text.remove_prefix(prefix.size());
    if (!TakeAuthority(text, value.authority)) return std::nullopt;
    while (!text.empty()) {
        DWORD sub = 0;
        if (!text.starts_with('-')) return std::nullopt;
        text.remove_prefix(1);
        if (!TakeNumber(text, sub) || !value.Append(sub)) return std::nullopt;
    }
    return value;
}

std::string SID_VALUE::Bytes() const {
    SID_HEADER header{SidRevision, static_cast<BYTE>(count), {}};
    for (int i = 0; i < 6; ++i) header.authority[i] = static_cast<BYTE>(authority >> (40 - 8 * i));
    std::string bytes(reinterpret_cast<const char*>(&header), sizeof(header));
    return bytes.append(reinterpret_cast<const char*>(subs.data()), count * sizeof(DWORD));
}

std::string SID_VALUE::Text() const {
    char number[32];
    const char* const format = authority > MAXDWORD ? "S-1-0x%012llX" : "S-1-%llu";
    snprintf(number, sizeof(number), format, static_cast<unsigned long long>(authority));
    std::string text = number;
    for (const DWORD sub : Subs()) text += "-" + std::to_string(sub);
    return text;
}

SID_VALUE SID_VALUE::Domain() const {
    SID_VALUE domain = *this;
    if (count > 0) domain.subs[--domain.count] = 0;
    return domain;
}

bool SID_VALUE::Append(DWORD sub) {
    if (count == MaxSubs) return false;
    subs[count++] = sub;
    return true;
}

}  // namespace win32

BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD s0, DWORD s1, DWORD s2,
                                     DWORD s3, DWORD s4, DWORD s5, DWORD s6, DWORD s7, PSID* sid) {
    const DWORD subs[] = {s0, s1, s2, s3, s4, s5, s6, s7};
    if (authority == nullptr || sid == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (count > std::size(subs)) return win32::FailWith(ERROR_INVALID_SID);
    win32::SID_HEADER header{win32::SidRevision, count, {}};
    std::copy_n(authority->Value, sizeof(header.authority), header.authority);
    BYTE* memory = static_cast<BYTE*>(malloc(win32::LengthOf(header)));
    if (memory == nullptr) return win32::FailWith(ERROR_NOT_ENOUGH_MEMORY);
    memcpy(memory, &header, sizeof(header));
    memcpy(memory + sizeof(header), subs, count * sizeof(DWORD));
    *sid = memory;
    return TRUE;
}

PVOID WINAPI FreeSid(PSID sid) {
    free(sid);
    return nullptr;
}

DWORD WINAPI GetLengthSid(PSID sid) {
    return static_cast<DWORD>(win32::LengthOf(*static_cast<const win32::SID_HEADER*>(sid)));
}

BOOL WINAPI ConvertSidToStringSidW(PSID sid, LPWSTR* text) {
    if (sid == nullptr || text == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    const auto value = win32::SID_VALUE::At(sid);
    if (!value) return win32::FailWith(ERROR_INVALID_SID);
    const std::u16string converted = win32::ToUtf16(value->Text());
    const size_t bytes = (converted.size() + 1) * sizeof(WCHAR);
    *text = static_cast<LPWSTR>(LocalAlloc(LMEM_FIXED, bytes));
    if (*text == nullptr) return win32::FailWith(ERROR_NOT_ENOUGH_MEMORY);
    memcpy(*text, converted.c_str(), bytes);
    return TRUE;
}
