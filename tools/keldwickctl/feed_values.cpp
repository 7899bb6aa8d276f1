#include "tools/keldwickctl/feed_values.h"

#include <array>
#include <charconv>

#include "tools/keldwickctl/event_values.h"

using nlohmann::json;

json ParseFeedObject(std::string_view line) {
    if (line.size() > LargestFeedLine) return json(json::value_t::discarded);
    json object = json::parse(line, nullptr, false);
    if (!object.is_object()) return json(json::value_t::discarded);
    return object;
}

std::string ScalarText(const json& value) {
    if (value.is_number() || value.is_boolean()) return value.dump();
    if (!value.is_string()) return {};
    std::string text = value.get_ref<const std::string&>();
    for (size_t nul = text.find('\0'); nul != std::string::npos; nul = text.find('\0', nul))
        text.replace(nul, 1, "\xEF\xBF\xBD");
    return text;
}

std::string MemberText(const json& object, const char* name) {
    const auto found = object.find(name);
    return found == object.end() ? std::string() : ScalarText(*found);
}

namespace {

// Seconds, or what is too large for them thousandths, millionths or billionths, with or without a fraction or exponent.
// False: no number.
bool ParseEpoch(std::string_view text, std::optional<DWORD>& time) {
    double number = 0;
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
    const bool whole = error == std::errc() && end == text.data() + text.size();
    if (!whole || text[0] < '1' || text[0] > '9') return false;
    for (int steps = 0; number > MAXDWORD && steps < 3; ++steps) number /= 1000;
    if (number <= MAXDWORD) time = static_cast<DWORD>(number);
    return true;
}

}  // namespace

std::optional<DWORD> ParseShippedTime(std::string_view text) {
    if (text.starts_with("/Date(") && text.ends_with(")/")) text = text.substr(6, text.size() - 8);
    if (std::optional<DWORD> time; ParseEpoch(text, time)) return time;
    std::string iso(text.substr(0, 64));
    constexpr size_t DateEnd = 10;  // of YYYY-MM-DD
    if (iso.size() > DateEnd && iso[DateEnd] == ' ') iso[DateEnd] = 'T';
    const size_t sign = iso.size() > 5 ? iso.size() - 5 : 0;  // of +hhmm
    if (sign > DateEnd && (iso[sign] == '+' || iso[sign] == '-')) iso.insert(sign + 3, ":");
    return ParseIsoTime(iso);
}

std::u16string OwnComputerName() {
    std::array<WCHAR, 256> name;
    DWORD units = name.size();
    return GetComputerNameW(name.data(), &units) ? std::u16string(name.data(), units) : std::u16string();
}
