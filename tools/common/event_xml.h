// Windows event XML as events, and where the importers of all kinds put what they read.
#pragma once

#include <expat.h>

#include <array>
#include <memory>
#include <string>
#include <string_view>

#include "win32/eventlog/evt_record.h"

namespace tools {

// Where the importers put what they read, and what they could not.
class EVENT_SINK {
public:
    virtual ~EVENT_SINK() = default;
    virtual void Take(const win32::NEW_EVENT& event) = 0;
    virtual void TakeRecord(const EVENTLOGRECORD& record) = 0;  // a whole record of another log
    virtual void Unreadable(const std::string& what) = 0;       // one thing that is not in the log now, and why
    virtual bool Full() const { return false; }                 // it takes nothing more for now
};

// Parses one Event element.
class EVENT_XML_PARSER {
public:
    EVENT_XML_PARSER();

    // Parses the bytes of exactly one Event element. `encoding` is a name as in an XML declaration; empty: UTF-8.
    // The i-th element of EventData, its text unchanged, is string i; Binary is the data. Of UserData every element
    // without children is a string. False: `Reason` says why.
    bool Parse(std::string_view xml, const std::string& encoding, win32::NEW_EVENT& event);

    const std::string& Reason() const { return reason; }
    const std::string& Channel() const { return channel; }  // the log of the event; empty: it does not say

private:
    enum SECTION { NONE, SYSTEM, EVENT_DATA, USER_DATA };

    static void StartElement(void* self, const XML_Char* name, const XML_Char** attributes);
    static void EndElement(void* self, const XML_Char* name);
    static void Text(void* self, const XML_Char* text, int length);
    void Start(std::string_view name, const XML_Char** attributes);
    void End(std::string_view name);
    void StartSystemField(std::string_view name, const XML_Char** attributes);
    void EndSystemField(std::string_view name);
    void AddString();
    void Finish();
    void Refuse(const std::string& why);

    struct PARSER_FREE {
        void operator()(XML_Parser done) const { XML_ParserFree(done); }
    };
    std::unique_ptr<XML_ParserStruct, PARSER_FREE> parser;
    win32::NEW_EVENT* target = nullptr;
    std::string text, reason, channel;
    size_t strings = 0;  // of the event, so far
    SECTION section = NONE;
    int depth = 0;
    bool leaf = false;  // no child element since the last start
    bool seenId = false, seenTime = false;
    unsigned long long qualifiers = 0, keywords = 0, level = 0;
};

// Event XML as a stream: single Event elements one after another, or within Events, with XML declarations wherever
// files were joined; UTF-8, UTF-16, or what the declaration names and expat knows.
//
// Finds the elements by itself and parses each alone, so that one that is broken costs no other, and memory does not
// grow with the stream: no element may be larger than LargestEvent. The work is linear in the bytes, whatever they are
// and however few come at a time.
class EVENT_XML_STREAM {
public:
    static constexpr size_t LargestEvent = 4 * 1024 * 1024;  // bytes

    explicit EVENT_XML_STREAM(EVENT_SINK& into) : sink(into) {}

    // Takes the bytes and gives the events that end in them, until the sink is full. False: it was full before all was
    // scanned; the next call, which may bring no bytes, goes on there.
    bool Feed(std::string_view bytes);

    // No more bytes will come. False as above.
    bool Finish();

private:
    enum UNITS { UNKNOWN, BYTES_8, LITTLE_16, BIG_16 };
    enum END { COMMENT_END, CDATA_END, INSTRUCTION_END, Ends };

    void DecodeFirst();
    void DetectUnits();
    void Decode(std::string_view bytes);
    bool Scan(bool last);
    void Drop(size_t count);
    bool ScanMarkup(size_t open, bool last);
    bool SkipTo(size_t open, size_t from, END kind, bool last);
    size_t TagEnd(size_t open);
    void ScanTag(size_t open, size_t close);
    void BeginEvent(size_t open);
    void EndEvent(size_t end);
    void CheckOutside(size_t from, size_t to);
    void CutShort(const char* why);
    void Stray(const std::string& what, size_t at);
    void ReadDeclaration(std::string_view declaration);

    EVENT_SINK& sink;
    EVENT_XML_PARSER parser;
    win32::NEW_EVENT event;
    std::string raw;  // up to four bytes, until the units are known; then half units of UTF-16
    UNITS units = UNKNOWN;
    unsigned highSurrogate = 0;
    std::string encoding;                    // as the last declaration says; of no account for UTF-16
    std::string buffer;                      // decoded bytes not dealt with yet
    size_t at = 0;                           // in buffer: where the scan goes on
    size_t begin = npos;                     // in buffer: the element being gathered
    std::array<size_t, Ends> searched = {};  // in buffer: from `at` up to here no such end begins
    size_t tagSearched = 0;                  // in buffer: the same for the end of the tag at `at`,
    char tagQuote = 0;                       // and the quote that is open there
    int depth = 0;                           // Event elements open
    unsigned long long passed = 0;           // decoded bytes before the buffer
    unsigned long long number = 0;           // of the event, from 1
    bool strayReported = false;              // what lies between two events is reported once
    static constexpr size_t npos = std::string::npos;
};

}  // namespace tools
