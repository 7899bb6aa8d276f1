#include "win32/security/sid.h"

#include <sddl.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "win32/text/last_error.h"

namespace win32 {

bool SID_VALUE::Load(const void* sid) {
    if (sid == nullptr) return false;
    SID_HEADER header;
    memcpy(&header, sid, sizeof(header));
    if (header.revision != SidRevision || header.count > MaxSubAuthorities) return false;
    authority = 0;
    for (const BYTE byte : header.authority) authority = authority << 8 | byte;
    subs.resize(header.count);
    if (!subs.empty()) memcpy(subs.data(), static_cast<const BYTE*>(sid) + sizeof(header), subs.size() * sizeof(DWORD));
    return true;
}

SID_VALUE SID_VALUE::Domain() const {
    SID_VALUE domain = *this;
    if (!domain.subs.empty()) domain.subs.pop_back();
    return domain;
}

void SID_VALUE::Store(void* memory) const {
    SID_HEADER header{SidRevision, static_cast<BYTE>(subs.size()), {}};
    for (int i = 0; i < 6; ++i) header.authority[i] = static_cast<BYTE>(authority >> (40 - 8 * i));
    memcpy(memory, &header, sizeof(header));
    if (!subs.empty()) memcpy(static_cast<BYTE*>(memory) + sizeof(header), subs.data(), subs.size() * sizeof(DWORD));
}

// S-1-authority-sub-...: an authority beyond 32 bits is written as twelve hexadecimal digits.
static std::u16string SidText(const SID_VALUE& sid) {
    char number[32];
    const bool large = sid.Authority() > MAXDWORD;
    snprintf(number, sizeof(number), large ? "0x%012llX" : "%llu", static_cast<unsigned long long>(sid.Authority()));
    std::string text = std::string("S-1-") + number;
    for (const DWORD sub : sid.Subs()) text += "-" + std::to_string(sub);
    return {text.begin(), text.end()};
}

}  // namespace win32

BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD s0, DWORD s1, DWORD s2,
                                     DWORD s3, DWORD s4, DWORD s5, DWORD s6, DWORD s7, PSID* sid) {
    const DWORD subs[] = {s0, s1, s2, s3, s4, s5, s6, s7};
    if (authority == nullptr || sid == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (count > 8) return win32::FailWith(ERROR_INVALID_SID);
    BYTE* memory = static_cast<BYTE*>(malloc(sizeof(win32::SID_HEADER) + count * sizeof(DWORD)));
    if (memory == nullptr) return win32::FailWith(ERROR_NOT_ENOUGH_MEMORY);
    win32::SID_HEADER header{win32::SidRevision, count, {}};
    memcpy(header.authority, authority->Value, sizeof(header.authority));
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
    const BYTE count = static_cast<const BYTE*>(sid)[offsetof(win32::SID_HEADER, count)];
    return static_cast<DWORD>(sizeof(win32::SID_HEADER) + count * sizeof(DWORD));
}

BOOL WINAPI CopySid(DWORD bytes, PSID to, PSID from) {
    const DWORD length = GetLengthSid(from);
    if (bytes < length) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    memmove(to, from, length);
    return TRUE;
}

BOOL WINAPI ConvertSidToStringSidW(PSID sid, LPWSTR* text) {
    win32::SID_VALUE value;
    if (sid == nullptr || text == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!value.Load(sid)) return win32::FailWith(ERROR_INVALID_SID);
    const std::u16string converted = win32::SidText(value);
    const size_t bytes = (converted.size() + 1) * sizeof(WCHAR);
    *text = static_cast<LPWSTR>(LocalAlloc(LMEM_FIXED, bytes));
    if (*text == nullptr) return win32::FailWith(ERROR_NOT_ENOUGH_MEMORY);
    memcpy(*text, converted.c_str(), bytes);
    return TRUE;
}
