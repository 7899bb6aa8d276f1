// How the tools read and write numbers, times, SIDs, bytes and the types of events.
#pragma once

#include <windows.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "win32/eventlog/evt_format.h"

namespace tools {

// error, warning, information, audit-success, audit-failure, success; the number in decimal for any other.
std::string EventTypeName(WORD type);
std::optional<WORD> EventTypeOf(std::string_view name);

// 2026-11-16T08:00:12Z, with a fraction of a second (cut off) or an offset from UTC if wanted; without either Z or
// offset it is UTC. Seconds since 1970; nothing: not a time, or not within 1970 to 2106.
std::optional<DWORD> ParseIsoTime(std::string_view text);
std::string IsoTime(DWORD seconds);
std::string TimeText(int64_t seconds);  // the same of a longer number

// A length of time as a person says it, in its largest unit: "40 s", "5 min", "3 h", "12 days".
std::string DurationText(int64_t seconds);

// Pairs of hexadecimal digits; nothing when it is anything else.
std::optional<win32::BYTES> ParseHex(std::string_view text);
std::string HexDigits(const BYTE* bytes, size_t count);  // two lower-case digits for each byte

// S-1-5-32-544 as bytes; nothing when it is not a SID.
std::optional<win32::BYTES> ParseSid(std::string_view text);

// A whole number, decimal or with 0x; nothing when it is anything else or above the limit.
std::optional<unsigned long long> ParseNumber(std::string_view text, unsigned long long limit);

// This computer's name, as the events written here carry it.
std::u16string OwnComputerName();

}  // namespace tools
