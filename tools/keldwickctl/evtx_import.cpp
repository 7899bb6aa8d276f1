#include "tools/keldwickctl/events.h"

#include <libevtx.h>

#include <array>
#include <string>

#include "tools/common/event_xml.h"
#include "tools/common/failure.h"

namespace tools {
namespace {

constexpr size_t MaxXmlBytes = 4 * 1024 * 1024;  // bytes of one record
constexpr int MaxRecords = 10000000;

// libevtx's error text, on one line, and the error is done with.
std::string TakeError(libevtx_error_t*& error) {
    std::array<char, 512> text{};
    if (error != nullptr && libevtx_error_sprint(error, text.data(), text.size()) < 0) text[0] = 0;
    libevtx_error_free(&error);
    std::string line = text.data();
    while (!line.empty() && (line.back() == '\n' || line.back() == ' ')) line.pop_back();
    for (char& each : line)
        if (each == '\n') each = ' ';
    return line.empty() ? "libevtx cannot read it" : line;
}

class EVTX_FILE {
public:
    explicit EVTX_FILE(const std::string& path) {
        libevtx_error_t* error = nullptr;
        if (libevtx_file_initialize(&file, &error) == 1 &&
            libevtx_file_open(file, path.c_str(), libevtx_get_access_flags_read(), &error) == 1)
            return;
        libevtx_file_free(&file, nullptr);
        throw COMMAND_ERROR(path + ": " + TakeError(error));
    }
    ~EVTX_FILE() {
        libevtx_file_close(file, nullptr);
        libevtx_file_free(&file, nullptr);
    }
    EVTX_FILE(const EVTX_FILE&) = delete;
    EVTX_FILE& operator=(const EVTX_FILE&) = delete;

    int Records() const {
        int count = 0;
        return libevtx_file_get_number_of_records(file, &count, nullptr) == 1 ? count : 0;
    }

    // Whether libevtx met parts with wrong checksums, of which it reports nothing else.
    bool Damaged() const { return libevtx_file_is_corrupted(file, nullptr) == 1; }

    // The record as event XML; false: `reason` says why not.
    bool Xml(int index, std::string& xml, std::string& reason) const {
        libevtx_error_t* error = nullptr;
        libevtx_record_t* record = nullptr;
        size_t size = 0;
        bool good = libevtx_file_get_record_by_index(file, index, &record, &error) == 1 &&
                    libevtx_record_get_utf8_xml_string_size(record, &size, &error) == 1;
        if (good && size > MaxXmlBytes) {
            good = false;
            reason = "larger than 4 MiB";
        } else if (good) {
            xml.assign(size, '\0');
            good =
                libevtx_record_get_utf8_xml_string(record, reinterpret_cast<uint8_t*>(xml.data()), size, &error) == 1;
            xml.resize(xml.find_last_not_of('\0') + 1);
        }
        if (record != nullptr) libevtx_record_free(&record, nullptr);
        if (!good && reason.empty()) reason = TakeError(error);
        libevtx_error_free(&error);
        return good;
    }

private:
    libevtx_file_t* file = nullptr;
};

// libevtx writes hexadecimal numbers with all their digits, 0x000000000010fac2; Windows writes 0x10fac2.
void StripZeros(std::u16string& text) {
    if ((text.size() != 10 && text.size() != 18) || text[0] != u'0' || text[1] != u'x') return;
    if (text.find_first_not_of(u"0123456789abcdef", 2) != std::u16string::npos) return;
    const size_t first = std::min(text.find_first_not_of(u'0', 2), text.size() - 1);
    text.erase(2, first - 2);
}

// XML has no control characters, the log's texts may: they pass the parser as the 32 characters from U+FDD0 on, which
// Unicode reserves for such internal use, and carriage returns as references, since a parser would make them line
// feeds.
constexpr char16_t FirstStandIn = 0xFDD0;
constexpr unsigned ControlCharacters = 32;

std::string WithStandIns(const std::string& xml) {
    std::string legal;
    legal.reserve(xml.size());
    for (const char each : xml) {
        const unsigned char byte = static_cast<unsigned char>(each);
        if (byte >= ControlCharacters || byte == '\t' || byte == '\n')
            legal += each;
        else if (byte == '\r')
            legal += "&#13;";
        else
            legal += {'\xEF', '\xB7', static_cast<char>(0x90 + byte)};
    }
    return legal;
}

void RestoreControls(std::u16string& text) {
    constexpr char16_t Replacement = 0xFFFD;
    for (char16_t& unit : text)
        if (unit >= FirstStandIn && unit < FirstStandIn + ControlCharacters)
            unit =
                unit == FirstStandIn ? Replacement : static_cast<char16_t>(unit - FirstStandIn);  // a text holds no NUL
}

}  // namespace

void ImportEvtx(const std::string& path, EVENT_SINK& sink) {
    const EVTX_FILE file(path);
    EVENT_XML_PARSER parser;
    win32::NEW_EVENT event;
    std::string xml;
    const int held = file.Records(), records = std::min(held, MaxRecords);
    for (int index = 0; index < records; ++index) {
        std::string reason;
        if (!file.Xml(index, xml, reason)) {
            sink.Unreadable("record " + std::to_string(index + 1) + ": " + reason);
        } else if (!parser.Parse(WithStandIns(xml), {}, event)) {
            sink.Unreadable("record " + std::to_string(index + 1) + ": " + parser.Reason());
        } else {
            for (std::u16string& text : event.strings) {
                StripZeros(text);
                RestoreControls(text);
            }
            RestoreControls(event.source);
            RestoreControls(event.computer);
            sink.Take(event);
        }
    }
    if (held > records) sink.Unreadable(std::to_string(held - records) + " records beyond the first ten million");
    if (file.Damaged()) sink.Unreadable("damaged parts of " + path + ", whose records are not known");
}

}  // namespace tools
