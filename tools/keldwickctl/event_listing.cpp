#include "tools/keldwickctl/event_listing.h"

#include <array>
#include <cstdio>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/event_values.h"
#include "tools/keldwickctl/failure.h"
#include "tools/text/safe_text.h"
#include "win32/text/utf.h"

namespace {

const BYTE* BytesOf(const EVENTLOGRECORD& record) { return reinterpret_cast<const BYTE*>(&record); }

// The NUL-terminated text at `text`, which then is the one after it.
std::string TakeText(const WCHAR*& text) {
    const std::u16string_view units(text);
    text += units.size() + 1;
    return win32::ToUtf8(units);
}

struct FIELDS {
    std::string source, computer;
    std::vector<std::string> strings;
};

FIELDS Decode(const EVENTLOGRECORD& record) {
    FIELDS fields;
    const WCHAR* text = reinterpret_cast<const WCHAR*>(BytesOf(record) + sizeof(record));
    fields.source = TakeText(text);
    fields.computer = TakeText(text);
    text = reinterpret_cast<const WCHAR*>(BytesOf(record) + record.StringOffset);
    for (WORD i = 0; i < record.NumStrings; ++i) fields.strings.push_back(TakeText(text));
    return fields;
}

// Within quotes those and back slashes are escaped, too.
std::string Escaped(const std::string& text) {
    std::string escaped;
    for (const char c : text) {
        if (c == '"' || c == '\\') escaped += '\\';
        escaped += c;
    }
    return SafeText(escaped);
}

std::string DataDigits(const EVENTLOGRECORD& record) {
    return record.DataLength == 0 ? std::string() : HexDigits(BytesOf(record) + record.DataOffset, record.DataLength);
}

}  // namespace

std::string RecordAsText(const EVENTLOGRECORD& record) {
    const FIELDS fields = Decode(record);
    std::string line = std::to_string(record.RecordNumber) + "  " + IsoTime(record.TimeGenerated) + "  " +
                       std::to_string(record.EventID) + "  " + EventTypeName(record.EventType) + "  " +
                       Escaped(fields.source) + "  " + Escaped(fields.computer) + " ";
    for (const std::string& text : fields.strings) line += " \"" + Escaped(text) + "\"";
    if (record.DataLength > 0) line += "  data " + DataDigits(record);
    return line;
}

std::string RecordAsJson(const EVENTLOGRECORD& record) {
    const FIELDS fields = Decode(record);
    nlohmann::ordered_json object;
    object["record"] = record.RecordNumber;
    object["time"] = IsoTime(record.TimeGenerated);
    object["id"] = record.EventID;
    object["type"] = EventTypeName(record.EventType);
    object["source"] = fields.source;
    object["computer"] = fields.computer;
    object["strings"] = fields.strings;
    object["data"] = DataDigits(record);
    return SafeJson(object);
}

void ListEvents(const std::string& log, unsigned last, bool json) {
    win32::EVT_READER reader;
    OpenReader(reader, log);
    DWORD current = 0, oldest = 0, count = 0;
    DWORD error = reader.Numbers(current, oldest, count);
    if (error == ERROR_SUCCESS && last > 0 && last < count) error = reader.Seek(current - last, true);
    win32::BYTES buffer(win32::MaxReadBytes / 4 * 4);
    while (error == ERROR_SUCCESS) {
        DWORD bytes = 0, needed = 0;
        error = reader.Read(true, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
        for (DWORD at = 0; at < bytes;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (record.RecordNumber >= current) return;  // written since this began
            const std::string line = json ? RecordAsJson(record) : RecordAsText(record);
            std::printf("%s\n", line.c_str());
            at += record.Length;
        }
        if (std::ferror(stdout)) return;
    }
    if (error != ERROR_HANDLE_EOF) FailCommand("cannot read the " + log + " log", error);
    if (reader.Damage() > 0)
        throw COMMAND_ERROR("the " + log + " log is damaged at " + std::to_string(reader.Damage()) +
                            (reader.Damage() == 1 ? " place" : " places") + ", whose records are not shown");
}
