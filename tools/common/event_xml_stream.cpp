#include "tools/common/event_xml.h"

#include <algorithm>
#include <utility>

namespace tools {
namespace {

constexpr size_t LargestTag = 64 * 1024;
constexpr std::string_view EventsNamespace = "http://schemas.microsoft.com/win/2004/08/events/event";
constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";

void PutUtf8(std::string& text, unsigned point) {
    if (point < 0x80) {
        text += static_cast<char>(point);
    } else if (point < 0x800) {
        text += {static_cast<char>(0xC0 | point >> 6), static_cast<char>(0x80 | (point & 63))};
    } else if (point < 0x10000) {
        text += {static_cast<char>(0xE0 | point >> 12), static_cast<char>(0x80 | (point >> 6 & 63)),
                 static_cast<char>(0x80 | (point & 63))};
    } else {
        text += {static_cast<char>(0xF0 | point >> 18), static_cast<char>(0x80 | (point >> 12 & 63)),
                 static_cast<char>(0x80 | (point >> 6 & 63)), static_cast<char>(0x80 | (point & 63))};
    }
}

// How many bytes at the text's end may be the beginning of a byte order mark.
size_t HalfMark(const std::string& text) {
    for (size_t bytes = ByteOrderMark.size() - 1; bytes > 0; --bytes)
        if (text.ends_with(ByteOrderMark.substr(0, bytes))) return bytes;
    return 0;
}

}  // namespace

bool EVENT_XML_STREAM::Feed(std::string_view bytes) {
    constexpr size_t enoughForUnits = 4;
    if (units == UNKNOWN) {
        raw += bytes;
        if (raw.size() < enoughForUnits) return true;
        DecodeFirst();
    } else {
        Decode(bytes);
    }
    return Scan(false);
}

bool EVENT_XML_STREAM::Finish() {
    if (units == UNKNOWN) DecodeFirst();
    if (units != BYTES_8 && !raw.empty()) Stray("half a character", buffer.size());
    raw.clear();
    if (!Scan(true)) return false;
    if (begin != npos) CutShort("cut short by the end");
    return true;
}

// The bytes that waited until the units were known.
void EVENT_XML_STREAM::DecodeFirst() {
    DetectUnits();
    const std::string first = std::exchange(raw, {});
    Decode(first);
}

void EVENT_XML_STREAM::DetectUnits() {
    const auto starts = [this](std::string_view with) { return raw.starts_with(with); };
    units = starts("\xFF\xFE") || starts(std::string_view("<\0", 2))   ? LITTLE_16
            : starts("\xFE\xFF") || starts(std::string_view("\0<", 2)) ? BIG_16
                                                                       : BYTES_8;
}

void EVENT_XML_STREAM::Decode(std::string_view bytes) {
    if (units == BYTES_8) {
        buffer += bytes;
        return;
    }
    for (const char byte : bytes) {
        raw += byte;
        if (raw.size() < 2) continue;
        const unsigned first = static_cast<unsigned char>(raw[0]), second = static_cast<unsigned char>(raw[1]);
        const unsigned unit = units == LITTLE_16 ? first | second << 8 : first << 8 | second;
        raw.clear();
        constexpr unsigned Replacement = 0xFFFD;
        const bool low = unit >= 0xDC00 && unit < 0xE000;
        if (highSurrogate != 0) {
            PutUtf8(buffer, low ? 0x10000 + ((highSurrogate - 0xD800) << 10) + (unit - 0xDC00) : Replacement);
            highSurrogate = 0;
            if (low) continue;
        }
        if (unit >= 0xD800 && unit < 0xDC00)
            highSurrogate = unit;
        else
            PutUtf8(buffer, low ? Replacement : unit);
    }
}

bool EVENT_XML_STREAM::Scan(bool last) {
    while (at < buffer.size() && !sink.Full()) {
        const size_t open = std::min(buffer.find('<', at), buffer.size());
        const bool found = open < buffer.size();
        const size_t known = found || last ? open : std::max(at, open - HalfMark(buffer));
        if (begin == npos) CheckOutside(at, known);
        at = known;
        if (!found || !ScanMarkup(open, last)) break;
    }
    const bool full = sink.Full();
    if (!full && begin != npos && buffer.size() - begin > LargestEvent) CutShort("larger than 4 MiB");
    // What is kept is moved to the front only when it is the smaller part, or single bytes that follow much that waits
    // would move that each time.
    const size_t done = begin != npos ? begin : at;
    if (done >= buffer.size() - done) Drop(done);
    return !full;
}

void EVENT_XML_STREAM::Drop(size_t count) {
    buffer.erase(0, count);
    passed += count;
    at -= count;
    if (begin != npos) begin -= count;
    for (size_t& each : searched) each -= std::min(each, count);
    tagSearched -= std::min(tagSearched, count);
}

// Goes past the markup at `open`. False: its end has not come yet.
bool EVENT_XML_STREAM::ScanMarkup(size_t open, bool last) {
    const std::string_view rest = std::string_view(buffer).substr(open, 9);
    constexpr std::string_view Cdata = "<![CDATA[", Comment = "<!--", Instruction = "<?";
    const bool mayBeLonger = rest.size() == 1 || rest[1] == '!';  // the second character shows that it is a tag
    if (!last && rest.size() < Cdata.size() && mayBeLonger) return false;
    if (rest.starts_with(Comment)) return SkipTo(open, open + Comment.size(), COMMENT_END, last);
    if (rest == Cdata) return SkipTo(open, open + Cdata.size(), CDATA_END, last);
    if (rest.starts_with(Instruction)) return SkipTo(open, open + Instruction.size(), INSTRUCTION_END, last);
    const size_t end = TagEnd(open);
    if (end == buffer.size() && end - open < LargestTag && !last) return false;
    if (end == buffer.size() || end - open == LargestTag || buffer[end] != '>') {
        if (begin == npos) Stray("a broken tag", open);
        at = open + 1;  // an event with this in it is refused when it is parsed
        return true;
    }
    at = end + 1;
    ScanTag(open, at);
    return true;
}

// Where the tag that begins at `open` ends: at its '>', which may stand in quoted attribute values too, or, broken, at
// a '<', which may stand nowhere in it, or where it is too long. The buffer's size: it has not ended yet.
size_t EVENT_XML_STREAM::TagEnd(size_t open) {
    if (tagSearched <= open) {
        tagSearched = open + 1;
        tagQuote = 0;
    }
    const size_t limit = std::min(buffer.size(), open + LargestTag);
    for (; tagSearched < limit; ++tagSearched) {
        const char byte = buffer[tagSearched];
        if (byte == '<' || (byte == '>' && tagQuote == 0)) break;
        if (tagQuote == 0 ? byte == '"' || byte == '\'' : byte == tagQuote) tagQuote = tagQuote == 0 ? byte : 0;
    }
    return tagSearched;
}

// One search for an end that does not come serves all that wait for it.
bool EVENT_XML_STREAM::SkipTo(size_t open, size_t from, END kind, bool last) {
    constexpr std::array<std::string_view, Ends> texts = {"-->", "]]>", "?>"};
    const std::string_view end = texts[kind];
    const size_t found = buffer.find(end, std::max(from, searched[kind]));
    if (found != npos) {
        at = found + end.size();
        if (begin == npos && kind == INSTRUCTION_END) ReadDeclaration(std::string_view(buffer).substr(open, at - open));
        return true;
    }
    searched[kind] = buffer.size() - std::min(buffer.size(), end.size() - 1);
    if (!last && buffer.size() - open < LargestEvent) return false;
    if (begin == npos) Stray("a comment or instruction without its end", open);
    at = open + 1;
    return true;
}

void EVENT_XML_STREAM::ScanTag(size_t open, size_t close) {
    const std::string_view tag = std::string_view(buffer).substr(open, close - open);
    const bool ends = tag[1] == '/', empty = tag[tag.size() - 2] == '/';
    std::string_view name = tag.substr(ends ? 2 : 1);
    name = name.substr(0, name.find_first_of(" \t\r\n/>"));
    if (const size_t colon = name.find(':'); colon != npos) name.remove_prefix(colon + 1);
    if (name != "Event") {
        if (begin == npos && name != "Events") Stray("the element " + std::string(name.substr(0, 40)), open);
        return;
    }
    if (ends) {
        if (begin == npos)
            Stray("the end of an event", open);
        else if (--depth == 0)
            EndEvent(close);
        return;
    }
    // An Event within an Event is data of its own kind, unless it declares what only a whole event declares.
    if (begin != npos && tag.find(EventsNamespace) == npos) {
        if (!empty) ++depth;
        return;
    }
    if (begin != npos) CutShort("cut short by the next event");
    BeginEvent(open);
    if (empty) EndEvent(close);
}

void EVENT_XML_STREAM::BeginEvent(size_t open) {
    begin = open;
    depth = 1;
    ++number;
    strayReported = false;
}

void EVENT_XML_STREAM::EndEvent(size_t end) {
    const std::string_view xml = std::string_view(buffer).substr(begin, end - begin);
    if (parser.Parse(xml, units == BYTES_8 ? encoding : std::string(), event))
        sink.Take(event);
    else
        sink.Unreadable("event " + std::to_string(number) + " at byte " + std::to_string(passed + begin) + ": " +
                        parser.Reason());
    begin = npos;
}

void EVENT_XML_STREAM::CutShort(const char* why) {
    sink.Unreadable("event " + std::to_string(number) + " at byte " + std::to_string(passed + begin) + ": " + why);
    begin = npos;
    depth = 0;
    strayReported = true;  // what is left of it is part of this report
}

void EVENT_XML_STREAM::CheckOutside(size_t from, size_t to) {
    std::string_view between = std::string_view(buffer).substr(from, to - from);
    for (size_t i = 0; i < between.size(); ++i) {
        if (between.substr(i).starts_with(ByteOrderMark)) {
            i += ByteOrderMark.size() - 1;
        } else if (between[i] != ' ' && between[i] != '\t' && between[i] != '\r' && between[i] != '\n') {
            Stray("text outside of events", from + i);
            return;
        }
    }
}

void EVENT_XML_STREAM::Stray(const std::string& what, size_t where) {
    if (strayReported) return;
    strayReported = true;
    sink.Unreadable(what + " at byte " + std::to_string(passed + where));
}

void EVENT_XML_STREAM::ReadDeclaration(std::string_view declaration) {
    if (!declaration.starts_with("<?xml ") && !declaration.starts_with("<?xml\t")) return;
    encoding.clear();
    const size_t name = declaration.find("encoding");
    if (name == npos) return;
    const size_t open = declaration.find_first_of("\"'", name);
    const size_t close = open == npos ? npos : declaration.find(declaration[open], open + 1);
    if (close != npos) encoding = declaration.substr(open + 1, close - open - 1);
    // A file that was converted to UTF-8 may still say that it is UTF-16: its bytes are the better witness.
    if (encoding.starts_with("UTF-16") || encoding.starts_with("utf-16")) encoding.clear();
}

}  // namespace tools
