#include "tools/common/event_xml.h"

#include <new>

#include "tools/common/values.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr unsigned long long AuditFailure = 0x0010000000000000, AuditSuccess = 0x0020000000000000;  // of Keywords
constexpr int MostDepth = 64;
constexpr char White[] = " \t\r\n";

std::string_view LocalName(const XML_Char* name) {
    std::string_view text = name;
    const size_t colon = text.rfind(':');
    return colon == std::string_view::npos ? text : text.substr(colon + 1);
}

std::string_view Trimmed(std::string_view text) {
    const size_t first = text.find_first_not_of(White);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(White) - first + 1);
}

const char* Attribute(const XML_Char** attributes, std::string_view name) {
    for (; *attributes != nullptr; attributes += 2)
        if (name == attributes[0]) return attributes[1];
    return nullptr;
}

WORD TypeOf(unsigned long long keywords, unsigned long long level) {
    if (keywords & AuditFailure) return EVENTLOG_AUDIT_FAILURE;
    if (keywords & AuditSuccess) return EVENTLOG_AUDIT_SUCCESS;
    if (level == 1 || level == 2) return EVENTLOG_ERROR_TYPE;  // critical, error
    return level == 3 ? EVENTLOG_WARNING_TYPE : EVENTLOG_INFORMATION_TYPE;
}

}  // namespace

EVENT_XML_PARSER::EVENT_XML_PARSER() : parser(XML_ParserCreate(nullptr)) {
    if (!parser) throw std::bad_alloc();
}

bool EVENT_XML_PARSER::Parse(std::string_view xml, const std::string& encoding, win32::NEW_EVENT& event) {
    XML_ParserReset(parser.get(), encoding.empty() ? "UTF-8" : encoding.c_str());
    XML_SetUserData(parser.get(), this);
    XML_SetElementHandler(parser.get(), StartElement, EndElement);
    XML_SetCharacterDataHandler(parser.get(), Text);
    event.Begin(event.strings.size());
    channel.clear();
    strings = 0;
    target = &event;
    reason.clear();
    section = NONE;
    depth = 0;
    leaf = seenId = seenTime = false;
    qualifiers = keywords = level = 0;
    if (XML_Parse(parser.get(), xml.data(), static_cast<int>(xml.size()), 1) == XML_STATUS_ERROR) {
        if (reason.empty())
            reason = std::string(XML_ErrorString(XML_GetErrorCode(parser.get()))) + " at its byte " +
                     std::to_string(XML_GetCurrentByteIndex(parser.get()));
        return false;
    }
    Finish();
    return reason.empty();
}

void EVENT_XML_PARSER::Refuse(const std::string& why) {
    if (!reason.empty()) return;
    reason = why;
    XML_StopParser(parser.get(), XML_FALSE);
}

void EVENT_XML_PARSER::StartElement(void* self, const XML_Char* name, const XML_Char** attributes) {
    static_cast<EVENT_XML_PARSER*>(self)->Start(LocalName(name), attributes);
}
void EVENT_XML_PARSER::EndElement(void* self, const XML_Char* name) {
    static_cast<EVENT_XML_PARSER*>(self)->End(LocalName(name));
}
void EVENT_XML_PARSER::Text(void* self, const XML_Char* text, int length) {
    static_cast<EVENT_XML_PARSER*>(self)->text.append(text, static_cast<size_t>(length));
}

void EVENT_XML_PARSER::Start(std::string_view name, const XML_Char** attributes) {
    ++depth;
    leaf = true;
    if (depth > MostDepth) return Refuse("elements nested too deep");
    if (depth == 2) {
        section = name == "System" ? SYSTEM : name == "EventData" ? EVENT_DATA : name == "UserData" ? USER_DATA : NONE;
        return;
    }
    if (depth == 3 || section == USER_DATA) text.clear();
    if (depth == 3 && section == SYSTEM) StartSystemField(name, attributes);
}

void EVENT_XML_PARSER::StartSystemField(std::string_view name, const XML_Char** attributes) {
    if (name == "Provider") {
        const char* provider = Attribute(attributes, "Name");
        if (provider == nullptr) provider = Attribute(attributes, "EventSourceName");
        if (provider != nullptr) win32::AssignUtf16(target->source, provider);
    } else if (name == "EventID") {
        const char* value = Attribute(attributes, "Qualifiers");
        const auto number = value != nullptr && *value != 0 ? ParseNumber(value, 0xFFFF) : 0;
        if (!number) return Refuse("unusable qualifiers of its EventID");
        qualifiers = *number;
    } else if (name == "TimeCreated") {
        const char* value = Attribute(attributes, "SystemTime");
        const auto time = value != nullptr ? ParseIsoTime(value) : std::nullopt;
        if (!time) return Refuse("unusable time");
        target->generated = *time;
        seenTime = true;
    } else if (name == "Security") {
        const char* value = Attribute(attributes, "UserID");
        if (value == nullptr || *value == 0) return;
        auto sid = ParseSid(value);
        if (!sid) return Refuse("unusable user SID");
        target->sid = std::move(*sid);
    }
}

void EVENT_XML_PARSER::End(std::string_view name) {
    if (depth == 3 && section == SYSTEM) EndSystemField(name);
    if (depth == 3 && section == EVENT_DATA) {
        if (name == "Binary") {
            auto bytes = ParseHex(Trimmed(text));
            if (!bytes) return Refuse("unusable binary data");
            target->data = std::move(*bytes);
        } else {
            AddString();
        }
    }
    if (depth >= 3 && section == USER_DATA && leaf) AddString();
    leaf = false;
    --depth;
}

void EVENT_XML_PARSER::AddString() {
    if (strings == target->strings.size()) target->strings.emplace_back();
    win32::AssignUtf16(target->strings[strings++], text);
}

void EVENT_XML_PARSER::EndSystemField(std::string_view name) {
    const std::string_view value = Trimmed(text);
    if (name == "Computer") {
        win32::AssignUtf16(target->computer, value);
    } else if (name == "Channel") {
        channel = value;
    } else if (name == "EventID") {
        const auto number = ParseNumber(value, qualifiers != 0 ? 0xFFFF : MAXDWORD);
        if (!number) return Refuse("unusable EventID");
        target->id = static_cast<DWORD>(*number | qualifiers << 16);
        seenId = true;
    } else if (name == "Keywords" && !value.empty()) {
        const auto number = ParseNumber(value, ~0ull);
        if (!number) return Refuse("unusable Keywords");
        keywords = *number;
    } else if (name == "Level" && !value.empty()) {
        const auto number = ParseNumber(value, 0xFF);
        if (!number) return Refuse("unusable Level");
        level = *number;
    } else if (name == "Task" && !value.empty()) {
        const auto number = ParseNumber(value, 0xFFFF);
        if (!number) return Refuse("unusable Task");
        target->category = static_cast<WORD>(*number);
    }
}

void EVENT_XML_PARSER::Finish() {
    target->strings.resize(strings);
    if (!reason.empty()) return;
    if (!seenId)
        reason = "no EventID";
    else if (!seenTime)
        reason = "no time";
    target->type = TypeOf(keywords, level);
}

}  // namespace tools
