// Windows events as log shippers write them, one JSON object a line, as records with their strings in position.
#pragma once

#include "tools/feed/source.h"

namespace tools::feed {

// Two forms, nested objects and dotted names alike: winlog.event_id with winlog.event_data.NAME, and the flat EventID
// with NAME beside it. Read are 4624, 4634, 528, 538, 540 and 673 of the Security log; any other event is
// skipped.
class SHIPPER_JSON final : public LINE_READER {
public:
    RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override;
};

}  // namespace tools::feed
