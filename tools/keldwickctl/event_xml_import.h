// Windows event XML as a stream: single Event elements one after another, or within Events, with XML declarations
// wherever files were joined; UTF-8, UTF-16, or what the declaration names and expat knows.
#pragma once

#include <array>
#include <string>
#include <string_view>

#include "tools/keldwickctl/event_sink.h"
#include "tools/keldwickctl/event_xml_parser.h"

// Finds the elements by itself and parses each alone, so that one that is broken costs no other, and memory does not
// grow with the stream: no element may be larger than LargestEvent. The work is linear in the bytes, whatever they are
// and however few come at a time.
class EVENT_XML_IMPORT {
public:
    static constexpr size_t LargestEvent = 4 * 1024 * 1024;  // bytes

    explicit EVENT_XML_IMPORT(EVENT_SINK& into) : sink(into) {}

    void Feed(const char* bytes, size_t count);
    void Finish();  // no more bytes will come

private:
    enum UNITS { UNKNOWN, BYTES_8, LITTLE_16, BIG_16 };
    enum END { COMMENT_END, CDATA_END, INSTRUCTION_END, Ends };

    void DetectUnits();
    void Decode(const char* bytes, size_t count);
    void Scan(bool last);
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
