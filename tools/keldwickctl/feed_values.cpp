#include "tools/keldwickctl/feed_values.h"

#include <array>

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

std::optional<DWORD> ParseShippedTime(std::string_view text) {
    if (text.starts_with("/Date(") && text.ends_with(")/")) text = text.substr(6, text.size() - 8);
    if (const auto number = ParseNumber(text, ~0ull >> 1); number && !text.starts_with("0")) {
        unsigned long long seconds = *number;
        for (int steps = 0; seconds > MAXDWORD && steps < 2; ++steps) seconds /= 1000;
        if (seconds <= MAXDWORD) return static_cast<DWORD>(seconds);
        return {};
    }
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
