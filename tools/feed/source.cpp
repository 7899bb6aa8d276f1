#include "tools/feed/source.h"

#include <algorithm>
#include <charconv>

#include "tools/common/values.h"

namespace tools::feed {

size_t LINES::Feed(std::string_view bytes, LINE_TAKER& taker) {
    const size_t given = bytes.size();
    while (!bytes.empty() && !taker.Full()) {
        const size_t end = std::min(bytes.find('\n'), bytes.size());
        const bool ends = end < bytes.size();
        const size_t room = MaxLineBytes + 1 - std::min(line.size(), MaxLineBytes + 1);  // 1: a CR that falls away
        line.append(bytes.substr(0, std::min(end, room)));
        pending += end + (ends ? 1 : 0);
        bytes.remove_prefix(end + (ends ? 1 : 0));
        if (ends) {
            --pending;  // the end of the line is none of its bytes
            End(taker);
        }
    }
    return given - bytes.size();
}

void LINES::Finish(LINE_TAKER& taker) {
    if (pending > 0) End(taker);
}

void LINES::End(LINE_TAKER& taker) {
    constexpr size_t Beginning = 4096;
    const bool cut = pending > line.size();
    std::string_view whole = line;
    if (!cut && whole.ends_with('\r')) whole.remove_suffix(1);
    if (cut || whole.size() > MaxLineBytes)
        taker.TakeTooLong(whole.substr(0, Beginning));
    else
        taker.TakeLine(whole);
    line.clear();
    pending = 0;
}

namespace {

// Seconds, or what is too large for them thousandths, millionths or billionths, with or without a fraction or exponent.
std::optional<DWORD> ParseEpoch(std::string_view text) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    if (!whole || text[0] < '1' || text[0] > '9') return {};
    for (int steps = 0; number > MAXDWORD && steps < 3; ++steps) number /= 1000;
    if (number > MAXDWORD) return {};
    return static_cast<DWORD>(number);
}

}  // namespace

std::optional<DWORD> ParseShippedTime(std::string_view text) {
    if (text.starts_with("/Date(") && text.ends_with(")/")) text = text.substr(6, text.size() - 8);
    if (text.find(':') == std::string_view::npos) return ParseEpoch(text);  // each form with a date has one
    std::string iso(text.substr(0, 64));
    constexpr size_t DateEnd = 10;  // of YYYY-MM-DD
    if (iso.size() > DateEnd && iso[DateEnd] == ' ') iso[DateEnd] = 'T';
    const size_t sign = iso.find_last_of("+-");  // of an offset from UTC, which may stand apart, and without a colon
    if (sign != std::string::npos && sign > DateEnd) {
        if (iso.size() - sign == 5) iso.insert(sign + 3, ":");
        if (iso[sign - 1] == ' ') iso.erase(sign - 1, 1);
    }
    return ParseIsoTime(iso);
}

}  // namespace tools::feed
