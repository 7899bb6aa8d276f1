// One <Event> element of Windows event XML, parsed into an event.
#pragma once

#include <expat.h>

#include <memory>
#include <string>
#include <string_view>

#include "win32/eventlog/evt_record.h"

class EVENT_XML_PARSER {
public:
    EVENT_XML_PARSER();

    // Parses the bytes of exactly one Event element. `encoding` is a name as in an XML declaration; empty: UTF-8.
    // The i-th element of EventData, its text unchanged, is string i; Binary is the data. Of UserData every element
    // without children is a string. False: `Reason` says why.
    bool Parse(std::string_view xml, const std::string& encoding, win32::NEW_EVENT& event);

    const std::string& Reason() const { return reason; }

private:
    enum SECTION { NONE, SYSTEM, EVENT_DATA, USER_DATA };

    static void StartElement(void* self, const XML_Char* name, const XML_Char** attributes);
    static void EndElement(void* self, const XML_Char* name);
    static void Text(void* self, const XML_Char* text, int length);
    void Start(std::string_view name, const XML_Char** attributes);
    void End(std::string_view name);
    void StartSystemField(std::string_view name, const XML_Char** attributes);
    void EndSystemField(std::string_view name);
    void Finish();
    void Refuse(const std::string& why);

    struct PARSER_FREE {
        void operator()(XML_Parser done) const { XML_ParserFree(done); }
    };
    std::unique_ptr<XML_ParserStruct, PARSER_FREE> parser;
    win32::NEW_EVENT* target = nullptr;
    std::string text, reason;
    SECTION section = NONE;
    int depth = 0;
    bool leaf = false;  // no child element since the last start
    bool seenId = false, seenTime = false;
    unsigned long long qualifiers = 0, keywords = 0, level = 0;
};
