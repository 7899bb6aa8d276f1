// Text from outside as a terminal, a line of output or a page can show it: names in events are chosen by strangers.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>
#include <string_view>

namespace tools {

// The text in UTF-8, with an escape like \u001b in the place of every character that could end the line, move the
// cursor, turn the text round or hide in it, and U+FFFD in the place of what is no UTF-8. Quotes and back slashes stay:
// they are the caller's where they mean something.
std::string SafeText(std::string_view text);

// The value on one line, with the same characters escaped as JSON has it, so that it means the same.
std::string SafeJson(const nlohmann::ordered_json& value);

}  // namespace tools
