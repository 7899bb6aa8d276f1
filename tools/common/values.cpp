#include "tools/common/values.h"

#include <algorithm>
#include <array>
#include <charconv>
#include <chrono>
#include <cstdio>
#include <utility>

#include "win32/security/sid.h"
#include "win32/text/numbers.h"

namespace tools {
namespace {

constexpr std::pair<WORD, const char*> TypeNames[] = {
    {EVENTLOG_SUCCESS, "success"},
    {EVENTLOG_ERROR_TYPE, "error"},
    {EVENTLOG_WARNING_TYPE, "warning"},
    {EVENTLOG_INFORMATION_TYPE, "information"},
    {EVENTLOG_AUDIT_SUCCESS, "audit-success"},
    {EVENTLOG_AUDIT_FAILURE, "audit-failure"},
};

// Takes exactly `digits` decimal digits from the text's front, then `next` unless that is 0.
bool TakeDigits(std::string_view& text, size_t digits, char next, int& value) {
    if (text.size() < digits) return false;
    value = 0;
    for (size_t i = 0; i < digits; ++i) {
        if (text[i] < '0' || text[i] > '9') return false;
        value = value * 10 + (text[i] - '0');
    }
    text.remove_prefix(digits);
    if (next == 0) return true;
    if (text.empty() || text[0] != next) return false;
    text.remove_prefix(1);
    return true;
}

// What may follow the seconds; the offset from UTC in seconds.
bool TakeZone(std::string_view text, int& offset) {
    offset = 0;
    if (!text.empty() && text[0] == '.') {
        text.remove_prefix(1);
        const size_t digits = std::min(text.find_first_not_of("0123456789"), text.size());
        if (digits == 0) return false;
        text.remove_prefix(digits);
    }
    if (text.empty() || text == "Z") return true;
    if (text[0] != '+' && text[0] != '-') return false;
    const int sign = text[0] == '+' ? 1 : -1;
    text.remove_prefix(1);
    int hours, minutes;
    if (!TakeDigits(text, 2, ':', hours) || !TakeDigits(text, 2, 0, minutes) || !text.empty()) return false;
    offset = sign * (hours * 60 + minutes) * 60;
    return hours < 24 && minutes < 60;
}

}  // namespace

std::string EventTypeName(WORD type) {
    for (const auto& [value, name] : TypeNames)
        if (value == type) return name;
    return std::to_string(type);
}

std::optional<WORD> EventTypeOf(std::string_view text) {
    for (const auto& [value, name] : TypeNames)
        if (text == name) return value;
    return {};
}

std::optional<DWORD> ParseIsoTime(std::string_view text) {
    using namespace std::chrono;
    int y, m, d, hour, minute, second, offset;
    if (!TakeDigits(text, 4, '-', y) || !TakeDigits(text, 2, '-', m) || !TakeDigits(text, 2, 'T', d)) return {};
    if (!TakeDigits(text, 2, ':', hour) || !TakeDigits(text, 2, ':', minute) || !TakeDigits(text, 2, 0, second))
        return {};
    if (!TakeZone(text, offset)) return {};
    const year_month_day date{year(y), month(static_cast<unsigned>(m)), day(static_cast<unsigned>(d))};
    if (!date.ok() || hour > 23 || minute > 59 || second > 60) return {};
    const long long seconds =
        sys_days(date).time_since_epoch().count() * 86400LL + hour * 3600 + minute * 60 + second - offset;
    if (seconds < 0 || seconds > MAXDWORD) return {};
    return static_cast<DWORD>(seconds);
}

std::string IsoTime(DWORD seconds) {
    using namespace std::chrono;
    const year_month_day date(sys_days(days(seconds / 86400)));
    const unsigned rest = seconds % 86400;
    std::array<char, 40> text;
    std::snprintf(text.data(), text.size(), "%04d-%02u-%02uT%02u:%02u:%02uZ", int(date.year()), unsigned(date.month()),
                  unsigned(date.day()), rest / 3600, rest / 60 % 60, rest % 60);
    return text.data();
}

std::string TimeText(int64_t seconds) { return IsoTime(static_cast<DWORD>(seconds)); }

std::string DurationText(int64_t seconds) {
    constexpr int64_t minute = 60, hour = 60 * minute, day = 24 * hour;
    if (seconds < 2 * minute) return std::to_string(seconds) + " s";
    if (seconds < 2 * hour) return std::to_string(seconds / minute) + " min";
    if (seconds < 2 * day) return std::to_string(seconds / hour) + " h";
    return std::to_string(seconds / day) + " days";
}

std::optional<win32::BYTES> ParseHex(std::string_view text) {
    if (text.size() % 2 != 0) return {};
    win32::BYTES bytes;
    for (size_t i = 0; i < text.size(); i += 2) {
        const int high = win32::HexDigit(text[i]), low = win32::HexDigit(text[i + 1]);
        if (high < 0 || low < 0) return {};
        bytes.push_back(static_cast<BYTE>(high << 4 | low));
    }
    return bytes;
}

std::string HexDigits(const BYTE* bytes, size_t count) {
    std::string text;
    for (size_t i = 0; i < count; ++i) win32::AppendHex(text, bytes[i]);
    return text;
}

std::optional<win32::BYTES> ParseSid(std::string_view text) {
    const auto sid = win32::SID_VALUE::FromText(text);
    if (!sid) return {};
    const std::string bytes = sid->Bytes();
    return win32::BYTES(bytes.begin(), bytes.end());
}

std::optional<unsigned long long> ParseNumber(std::string_view text, unsigned long long limit) {
    const bool hex = text.starts_with("0x") || text.starts_with("0X");
    if (hex) text.remove_prefix(2);
    unsigned long long value = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, hex ? 16 : 10);
    if (error != std::errc() || end != text.data() + text.size() || value > limit) return {};
    return value;
}

std::u16string OwnComputerName() {
    std::array<WCHAR, 256> name;
    DWORD units = name.size();
    return GetComputerNameW(name.data(), &units) ? std::u16string(name.data(), units) : std::u16string();
}

}  // namespace tools
