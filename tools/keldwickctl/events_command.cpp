// keldwickctl events: write, import, list, clear.
#include <algorithm>
#include <cstdio>
#include <memory>
#include <nlohmann/json.hpp>
#include <vector>

#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/events.h"
#include "win32/eventlog/event_text.h"
#include "win32/eventlog/evt_record.h"
#include "win32/text/utf.h"

namespace tools {
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

std::string RecordMessage(const EVENTLOGRECORD& record) {
    std::vector<std::u16string> strings;
    for (const std::string& text : Decode(record).strings) strings.push_back(win32::ToUtf16(text));
    std::string message = win32::EventText(record.EventID, strings);
    for (size_t at; (at = message.find('\n')) != std::string::npos;)  // with the indentation after it
        message.replace(at, std::min(message.find_first_not_of("\n ", at), message.size()) - at, " ");
    return SafeText(message);
}

namespace {

// Prints the log's records, the oldest first; `last` > 0: only the newest so many. Throws COMMAND_ERROR, after having
// printed what could be read, also when places were damaged.
void List(const std::string& log, unsigned last, bool json) {
    win32::EVT_READER reader;
    const LOG_NUMBERS numbers = OpenReaderWithNumbers(reader, log);
    DWORD error = ERROR_SUCCESS;
    if (last > 0 && last < numbers.count) error = reader.Seek(numbers.current - last, true);
    bool goesOn = true;  // until a record that was written since this began, or a failure of standard output
    const auto print = [&](const EVENTLOGRECORD& record) {
        goesOn = record.RecordNumber < numbers.current;
        if (goesOn) std::printf("%s\n", (json ? RecordAsJson(record) : RecordAsText(record)).c_str());
        return goesOn = goesOn && !std::ferror(stdout);
    };
    if (error == ERROR_SUCCESS) error = EachRecord(reader, true, print);
    if (error != ERROR_SUCCESS) FailCommand("cannot read the " + log + " log", error);
    if (goesOn && reader.Damage() > 0)
        throw COMMAND_ERROR("the " + log + " log is damaged at " + std::to_string(reader.Damage()) +
                            (reader.Damage() == 1 ? " place" : " places") + ", whose records are not shown");
}

struct WRITE_OPTIONS {
    std::string id, log = "Security", type = "audit-success", source, computer, time, data;
    std::vector<std::string> strings;
};

struct LIST_OPTIONS {
    std::string log = "Security";
    unsigned last = 0;
    bool json = false;
};

// The source that writes to the log on Windows, when none is named.
const char* UsualSource(const std::string& log) {
    return win32::SameName(win32::ToUtf16(log), u"Security") ? "Microsoft-Windows-Security-Auditing" : "Keldwick";
}

// The options have been checked while they were parsed.
void Write(const WRITE_OPTIONS& options) {
    win32::NEW_EVENT event;
    event.id = static_cast<DWORD>(*ParseNumber(options.id, MAXDWORD));
    event.type = *EventTypeOf(options.type);
    event.written = win32::SecondsNow();
    event.generated = options.time.empty() ? event.written : *ParseIsoTime(options.time);
    event.source = win32::ToUtf16(options.source.empty() ? UsualSource(options.log) : options.source);
    event.computer = options.computer.empty() ? OwnComputerName() : win32::ToUtf16(options.computer);
    event.data = *ParseHex(options.data);
    for (const std::string& text : options.strings) event.strings.push_back(win32::ToUtf16(text));

    win32::BYTES record;
    win32::EVT_WRITER writer;
    OpenWriter(writer, options.log);
    if (!win32::BuildRecord(event, record) || !writer.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())) ||
        !writer.Flush())
        FailCommand("cannot write to the " + options.log + " log", GetLastError());
}

template <typename PARSER>
CLI::Validator Checked(PARSER parse, const char* what) {
    return CLI::Validator(
        [parse, what](std::string& text) {
            return parse(text) ? std::string() : "must be " + std::string(what) + ", not \"" + text + "\"";
        },
        "");
}

CLI::Option* AddLog(CLI::App* command, std::string& log) {
    return command->add_option("--log", log, "the log's name")->type_name("LOG")->capture_default_str();
}

// The usual help, without the many positionals.
class WRITE_HELP final : public CLI::Formatter {
    std::string make_usage(const CLI::App*, std::string name) const override {
        return "Usage: " + name + " [OPTIONS] -- [STRING ...]\n";
    }
};

// One positional for each string: a single one for all of them would take "[a,b]" apart. No more than there are words
// left on the command line, since the parser compares each with all others.
std::vector<CLI::Option*> AddStrings(CLI::App* write, size_t wordsLeft) {
    constexpr size_t MostStrings = 256;
    std::vector<CLI::Option*> strings;
    strings.push_back(write->add_option("STRING")->description("the replacement strings, after -- (at most 256)"));
    while (strings.size() < std::min(wordsLeft, MostStrings))
        strings.push_back(write->add_option("STRING" + std::to_string(strings.size() + 1))->group(""));
    for (CLI::Option* each : strings) each->type_name("...")->expected(1);
    return strings;
}

void AddWrite(CLI::App* events) {
    const auto options = std::make_shared<WRITE_OPTIONS>();
    CLI::App* const write = events->add_subcommand("write", "Appends one record with the given replacement strings.");
    const auto isNumber = [](const std::string& text) { return ParseNumber(text, MAXDWORD).has_value(); };
    write->add_option("--id", options->id, "the event ID, decimal or with 0x")
        ->type_name("N")
        ->required()
        ->check(Checked(isNumber, "a number of 32 bits"));
    AddLog(write, options->log);
    write->add_option("--type", options->type)
        ->description("error, warning, information, audit-success or audit-failure")
        ->type_name("TYPE")
        ->capture_default_str()
        ->check(Checked(EventTypeOf, "error, warning, information, audit-success or audit-failure"));
    write->add_option("--source", options->source, "the event source (else the log's usual one)")->type_name("S");
    write->add_option("--computer", options->computer, "the computer (else this one)")->type_name("C");
    write->add_option("--time", options->time, "when it happened, like 2026-11-16T08:00:12Z (else now)")
        ->type_name("ISO")
        ->check(Checked(ParseIsoTime, "a time like 2026-11-16T08:00:12Z"));
    write->add_option("--data", options->data, "the record's data, two digits a byte")
        ->type_name("HEX")
        ->check(Checked(ParseHex, "pairs of hexadecimal digits"));
    const auto strings = std::make_shared<std::vector<CLI::Option*>>();
    write->preparse_callback([write, strings](size_t wordsLeft) { *strings = AddStrings(write, wordsLeft); });
    write->formatter(std::make_shared<WRITE_HELP>());
    write->callback([options, strings] {
        for (const CLI::Option* each : *strings)
            if (each->count() > 0) options->strings.push_back(each->results().front());
        Write(*options);
    });
}

void AddImport(CLI::App* events) {
    const auto options = std::make_shared<IMPORT_OPTIONS>();
    const auto since = std::make_shared<std::string>();
    CLI::App* const import = events->add_subcommand(
        "import", "Appends the events of an .evtx file, of event XML, or of an .evt file, recognised by content.");
    import->add_option("FILE", options->file, "the file; - is standard input")->required();
    AddLog(import, options->log);
    import->add_option("--since", *since, "leave out what happened before, like 2026-11-16T08:00:12Z")
        ->type_name("ISO")
        ->check(Checked(ParseIsoTime, "a time like 2026-11-16T08:00:12Z"));
    import->add_flag("--dry-run", options->dryRun, "show what the agent would report and why not; write nothing");
    import->add_flag("--wait", options->wait, "wait until the agent follows the log, and go no faster than it reads");
    import->callback([options, since] {
        if (!since->empty()) options->since = *ParseIsoTime(*since);
    ImportEvents(*options);
});
}  // namespace

void AddList(CLI::App* events) {
    const auto options = std::make_shared<LIST_OPTIONS>();
    CLI::App* const list = events->add_subcommand("list", "Shows a log, the oldest record first.");
    AddLog(list, options->log);
    list->add_option("--last", options->last, "only the newest N records")
        ->type_name("N")
        ->check(CLI::Range(1u, 0xFFFFFFFFu, "N"));
    list->add_flag("--json", options->json, "one JSON object a line");
    list->callback([options] { List(options->log, options->last, options->json); });
}

void AddClear(CLI::App* events) {
    const auto log = std::make_shared<std::string>("Security");
    CLI::App* const clear = events->add_subcommand("clear", "Clears a log; its new size is the MaxSize value.");
    AddLog(clear, *log);
    clear->callback([log] { ClearLog(*log); });
}

}  // namespace tools

void AddEventsCommands(CLI::App& app) {
    CLI::App* const events = app.add_subcommand("events", "Writes, imports, shows and clears event logs.");
    events->require_subcommand(1);
    AddWrite(events);
    AddImport(events);
    AddList(events);
    AddClear(events);
}

}  // namespace tools
