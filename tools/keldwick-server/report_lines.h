// Reports as text and as JSON. Names come from strangers: whatever they hold, a line stays one line of valid UTF-8.
#pragma once

#include <nlohmann/json_fwd.hpp>
#include <string>

#include "tools/keldwick-server/report.h"

namespace tools {

// 2026-11-16T08:00:12.345Z
std::string IsoTime(TIME time);

// The request in one line, without its end. For people: names in quotes, with everything escaped that could end the
// line, move the cursor or turn the text round.
std::string TextLine(const REQUEST& request);

// For programs: one JSON object with the fields of the request, when it came, and from where, the same characters
// escaped.
std::string JsonLine(const CONNECTION& from, const REPORT& report);

// The same object, and the part of it that says from where.
nlohmann::ordered_json ReportObject(const CONNECTION& from, const REPORT& report);
nlohmann::ordered_json ConnectionObject(const CONNECTION& from);

}  // namespace tools
