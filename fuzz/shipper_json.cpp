// The readers of the live sources on any line: shippers' JSON and the audit log. What becomes a record must be one.
// What is taken as an object must be one for another parser, too.
#include <cstdlib>
#include <nlohmann/json.hpp>
#include <string>

#include "tools/feed/samba_audit.h"
#include "tools/feed/shipper_json.h"

using namespace tools::feed;

namespace {

void Read(LINE_READER& reader, std::string_view line, size_t least) {
    win32::NEW_EVENT event;
    std::string reason;
    const LINE_READER::RESULT result = reader.Read(line, event, reason);
    if ((result != LINE_READER::RECORD) == reason.empty()) std::abort();
    if (result != LINE_READER::RECORD) return;
    win32::BYTES record;
    if (event.strings.size() < least) std::abort();
    if (win32::BuildRecord(event, record) && !win32::IsWholeRecord(record.data(), record.size())) std::abort();
}

void CheckObject(std::string_view line) {
    JSON_FIELDS fields;
    std::string reason;
    const bool taken = fields.Read(line, reason);
    if (line.find_first_of("eE") != std::string_view::npos) return;  // numbers too large for the other one
    const bool object = nlohmann::json::parse(line, nullptr, false).is_object();
    if (taken != object && (taken || reason == "not a JSON object")) std::abort();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    SHIPPER_JSON shipped;
    SAMBA_AUDIT audit;
    Read(shipped, line, 1);
    Read(audit, line, 27);
    if (size < 300) CheckObject(line);
    return 0;
}
