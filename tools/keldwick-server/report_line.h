// One line of output for a request.
#pragma once

#include <string>

#include "request_reader.h"

namespace keldwick_server {

// For people: names in quotes, with everything escaped that could end the line, move the cursor or turn the text round.
std::string TextLine(const REQUEST& request);

// For programs: one JSON object, valid UTF-8 whatever the names hold, with the same characters escaped. Both without a
// line end.
std::string JsonLine(const REQUEST& request);

}  // namespace keldwick_server
