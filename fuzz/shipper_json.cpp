// The readers of the live sources on any line: shippers' JSON and the audit log. What becomes a record must be one.
// What is taken as an object must be one for another parser, too.
#include <algorithm>
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
    // Numbers may be too large for the other one, and it takes a NUL for the end.
    if (line.find_first_of(std::string_view("eE\0", 3)) != std::string_view::npos) return;
    const bool object = nlohmann::json::parse(line, nullptr, false).is_object();
    if (taken != object && (taken || reason == "not a JSON object")) std::abort();
}

// Each of the first lines must be read as it is by itself.
void CheckLines(std::string_view lines) {
    JSON_FIELDS fields;
    for (int left = 8; left > 0 && !lines.empty(); --left) {
        const std::string_view line = lines.substr(0, lines.find('\n'));
        lines.remove_prefix(std::min(line.size() + 1, lines.size()));
        JSON_FIELDS fresh;
        std::string reason, freshReason;
        if (fields.Read(line, reason) != fresh.Read(line, freshReason) || reason != freshReason) std::abort();
        for (const std::string_view name : {"a", "b", "c", "a.b", "a.c", "b.c", "a.b.c", "type", "timestamp"}) {
            const JSON_VALUE value = fields.Value(name), wanted = fresh.Value(name);
            if (value.text != wanted.text || value.kind != wanted.kind) std::abort();
            if (fields.List(name).size() != fresh.List(name).size()) std::abort();
            if (fields.HasPrefix(name) != fresh.HasPrefix(name)) std::abort();
        }
    }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    const std::string_view line(reinterpret_cast<const char*>(data), size);
    SHIPPER_JSON shipped;
    SAMBA_AUDIT audit;
    Read(shipped, line, 1);
    Read(audit, line, 27);
    if (size < 300) CheckObject(line);
    if (size < 1000) CheckLines(line);
    return 0;
}
