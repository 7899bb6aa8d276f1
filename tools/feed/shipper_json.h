// Windows events as log shippers write them, one JSON object a line, as records with their strings in position.
#pragma once

#include "tools/common/event_xml.h"
#include "tools/feed/json_fields.h"
#include "tools/feed/source.h"

namespace tools::feed {

// Nested objects and dotted names alike: winlog.event_id with winlog.event_data.NAME, and the flat EventID with NAME
// beside it, or with the values in their order as the list StringInserts; or the event's XML as the text System. Read
// are 4624, 4634, 528, 538, 540 and 673 of the Security log; any other event is skipped.
class SHIPPER_JSON final : public LINE_READER {
public:
    RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override;

private:
    RESULT ReadXml(std::string_view xml, win32::NEW_EVENT& event, std::string& reason);

    JSON_FIELDS fields;  // of the line
    EVENT_XML_PARSER xmlParser;
    std::u16string computer;  // this one, once it was asked for
};

}  // namespace tools::feed
