#include "service/command_line.h"

namespace keldwick {

COMMAND_LINE CommandLine;

namespace {

// Where a parse stands: `next` is the argument after the option that is being taken.
struct PARSER {
    COMMAND_LINE& line;
    const WCHAR* const* option;
    const WCHAR* const* next;
    const WCHAR* const* end;
};

// What an option does: it ORs its debug-output flags and raises its flags, and then takes its value when it has one.
struct OPTION {
    const WCHAR* name;
    DWORD debugFlags;
    bool COMMAND_LINE::*flags[3];
    const WCHAR* (*takeValue)(PARSER&);  // null, or the argument to be reported as invalid
};

template <const WCHAR* COMMAND_LINE::*Field>
const WCHAR* TakeText(PARSER& parser) {
    if (parser.next == parser.end) return *parser.option;
    parser.line.*Field = *parser.next++;
    return nullptr;
}

// An empty directory server means the global catalog; an empty identity server means nothing and is refused, shown as
// it is: empty.
const WCHAR* TakeIdentServer(PARSER& parser) {
    if (parser.next != parser.end && **parser.next == 0) return *parser.next;
    return TakeText<&COMMAND_LINE::identServer>(parser);
}

const WCHAR* TakeProtocol(PARSER& parser) {
    static constexpr struct {
        const WCHAR* word;
        LONG protocol;
    } words[] = {{TEXT("AUTO"), PROTOCOL_AUTO}, {TEXT("TCPS"), PROTOCOL_TCPS}, {TEXT("TCP"), PROTOCOL_TCP}};

    if (parser.next == parser.end) {  // lenient: no word means AUTO
        parser.line.protocol = PROTOCOL_AUTO;
        return nullptr;
    }
    const WCHAR* const value = *parser.next++;
    for (const auto& word : words) {
        if (lstrcmpiW(value, word.word) != 0) continue;
        parser.line.protocol = word.protocol;
        return nullptr;
    }
    return value;
}

// The first name that matches is taken, so the order counts.
constexpr OPTION Options[] = {
    {TEXT("D"), 0x1, {}, nullptr},
    {TEXT("L"), 0x2, {}, nullptr},
    {TEXT("O"), 0x6, {}, nullptr},
    {TEXT("R"), 0xA, {}, nullptr},
    {TEXT("V"), 0x100, {}, nullptr},
    {TEXT("KD"), 0x11, {}, nullptr},
    {TEXT("NO_TIME_STAMP"), 0x40000, {}, nullptr},
    {TEXT("INTERNAL"), 0x10000, {}, nullptr},
    {TEXT("C"), 0, {&COMMAND_LINE::clearSavedMode}, nullptr},
    {TEXT("BREAK"), 0, {&COMMAND_LINE::breakGiven}, nullptr},
    {TEXT("TCP"), 0x400, {}, nullptr},
    {TEXT("AD"), 0x200, {}, nullptr},
    {TEXT("A"), 0, {&COMMAND_LINE::application}, nullptr},
    {TEXT("X"), 0, {&COMMAND_LINE::configureOnly}, nullptr},
    {TEXT("DUMP_NON_PERTINENT"), 0, {&COMMAND_LINE::dumpNonPertinent}, nullptr},
    {TEXT("DUMP_PERTINENT"), 0, {&COMMAND_LINE::dumpPertinent}, nullptr},
    {TEXT("DUMP_ALL"), 0, {&COMMAND_LINE::dumpPertinent, &COMMAND_LINE::dumpNonPertinent}, nullptr},
    {TEXT("MINI_DUMP"), 0, {&COMMAND_LINE::miniDump}, nullptr},
    {TEXT("USER_NAME"), 0, {}, TakeText<&COMMAND_LINE::userName>},
    {TEXT("COMPUTER_NAME"), 0, {}, TakeText<&COMMAND_LINE::computerName>},
    {TEXT("AD_SERVER"), 0, {}, TakeText<&COMMAND_LINE::adServer>},
    {TEXT("SERVER"), 0, {}, TakeIdentServer},
    {TEXT("PROTOCOL"), 0, {}, TakeProtocol},
    {TEXT("REPORT_IDENTITY"), 0, {&COMMAND_LINE::manualReport, &COMMAND_LINE::reportIdentity}, nullptr},
    {TEXT("REPORT_HEARTBEAT"),
     0,
     {&COMMAND_LINE::reportHeartbeat, &COMMAND_LINE::manualReport, &COMMAND_LINE::reportIdentity},
     nullptr},
    {TEXT("REPORT_LOGOFF"),
     0,
     {&COMMAND_LINE::reportLogoff, &COMMAND_LINE::manualReport, &COMMAND_LINE::reportIdentity},
     nullptr},
};

const OPTION* FindOption(const WCHAR* name) {
    for (const OPTION& option : Options) {
        if (lstrcmpiW(name, option.name) == 0) return &option;
    }
    return nullptr;
}

const WCHAR* TakeOption(PARSER& parser) {
    const WCHAR* const argument = *parser.option;
    if (argument[0] != TEXT('-') && argument[0] != TEXT('/')) return argument;
    const OPTION* const option = FindOption(argument + 1);
    if (!option) return argument;

    parser.line.debugMode |= option->debugFlags;
    for (bool COMMAND_LINE::*flag : option->flags) {
        if (flag) parser.line.*flag = true;
    }
    return option->takeValue ? option->takeValue(parser) : nullptr;
}

}  // namespace

const WCHAR* ParseCommandLine(COMMAND_LINE& commandLine, const WCHAR* const* arguments, DWORD count) {
    commandLine.argumentBegin = arguments;
    commandLine.argumentEnd = arguments + count;
    commandLine.debugMode = 0;
    if (count <= 1) return nullptr;

    PARSER parser{commandLine, arguments, arguments + 1, arguments + count};
    while (parser.next != parser.end) {
        parser.option = parser.next++;
        if (const WCHAR* const invalid = TakeOption(parser)) return invalid;
    }
    return nullptr;
}

}  // namespace keldwick
