#include "eventlog/record_dump.h"

#include <cstdlib>
#include <cstring>

#include "eventlog/event_names.h"
#include "eventlog/message_files.h"
#include "reader_test.h"

namespace keldwick {
namespace {

// A record as the log gives it, in a block of its own.
class RECORD_BYTES {
public:
    RECORD_BYTES(DWORD id, WORD type, std::vector<std::u16string> strings, const std::string& data = {}) {
        bytes.resize(sizeof(EVENTLOGRECORD));
        AddText(u"Source");
        AddText(u"PC");
        const DWORD stringOffset = Size();
        for (const std::u16string& text : strings) AddText(text);
        const DWORD dataOffset = Size();
        bytes.insert(bytes.end(), data.begin(), data.end());
        bytes.resize((bytes.size() + 3) / 4 * 4 + 4);
        EVENTLOGRECORD& record = *reinterpret_cast<EVENTLOGRECORD*>(bytes.data());
        record.Length = Size();
        record.RecordNumber = 77;
        record.TimeGenerated = 1700000000;  // 2023-11-14 22:13:20 UTC
        record.EventID = id;
        record.EventType = type;
        record.NumStrings = static_cast<WORD>(strings.size());
        record.StringOffset = stringOffset;
        record.DataLength = static_cast<DWORD>(data.size());
        record.DataOffset = dataOffset;
    }
    const EVENTLOGRECORD& Record() const { return *reinterpret_cast<const EVENTLOGRECORD*>(bytes.data()); }

private:
    DWORD Size() const { return static_cast<DWORD>(bytes.size()); }
    void AddText(const std::u16string& text) {
        const auto* start = reinterpret_cast<const BYTE*>(text.c_str());
        bytes.insert(bytes.end(), start, start + (text.size() + 1) * 2);
    }
    std::vector<BYTE> bytes;
};

class RecordDumpTest : public READER_TEST {
protected:
    RecordDumpTest() : log(options, TestHandlers) {
        setenv("TZ", "UTC", 1);
        tzset();
        Write(1);  // so that there is a log to open
        if (!log.Open(LogName)) std::abort();
        Forget();
    }
    LINES Dump(const RECORD_BYTES& bytes, DWORD detail) {
        Forget();
        REPLACEMENT_STRINGS strings;
        strings.Decode(bytes.Record());
        DumpEventRecord(bytes.Record(), log, strings, detail);
        return Lines();
    }
    EVENT_LOG log;
};

TEST_F(RecordDumpTest, ADumpShowsHeaderStringsAndData) {
    EXPECT_EQ(
        (LINES{"\nEVENT_KERBEROS_SERVICE_TICKET\n    RecordNumber: 77\n    Severity: 3\n    Facility: 10\n"
               "    Time stamp: 11/14/2023 22:13:20\n    Type: Audit Failure\n    Source: Source\n    Computer: PC",
               "    %1: {a%n}", "    %2: {}", "    Data length: 6\n    Data: 01020304 0506"}),
        Dump(RECORD_BYTES(0xC00A0000 | 4769, 16, {u"a%n", u""}, "\1\2\3\4\5\6"), DUMP_STRINGS | DUMP_DATA));
}

TEST_F(RecordDumpTest, ARecordWithNothingInItSaysSo) {
    const LINES lines = Dump(RECORD_BYTES(4768, 0, {}), DUMP_STRINGS | DUMP_DATA);
    ASSERT_EQ(2u, lines.size());
    EXPECT_EQ(0u, lines[0].find("\nEVENT_4768\n"));
    EXPECT_NE(std::string::npos, lines[0].find("    Type: <Unknown>\n"));
    EXPECT_EQ("    No replacement strings", lines[1]);
    EXPECT_EQ("    Data length: 4\n    Data: FFFEFDFC", Dump(RECORD_BYTES(1, 1, {}, "\xFF\xFE\xFD\xFC"), DUMP_DATA)[1]);
}

TEST_F(RecordDumpTest, TheMiniDumpIsOneLineWhateverTheDetail) {
    options.miniDump = true;
    EXPECT_EQ(LINES{"\nEvent = 8, RecordNumber = 77"}, Dump(RECORD_BYTES(0xC0000008, 1, {u"a"}), 15));
}

TEST_F(RecordDumpTest, NamesOfEventsAndTypes) {
    const struct {
        DWORD id;
        const char* name;
    } events[] = {{538, "LOGOFF"},
                  {540, "LOGON"},
                  {528, "LOCAL_LOGON"},
                  {673, "SERVICE_TICKET"},
                  {0x40001210, "ACCOUNT_LOGON"},
                  {4634, "ACCOUNT_LOGOFF"},
                  {65535, "65535"}};
    for (const auto& event : events) EXPECT_EQ(event.name, Narrow(EventName(event.id).Text()));
    const char* const types[] = {"<Unknown>", "Error", "Warning", "<Unknown>", "Informational"};
    for (WORD type = 0; type < 5; ++type) EXPECT_EQ(types[type], Narrow(EventTypeName(type)));
    EXPECT_EQ("Audit Success", Narrow(EventTypeName(8)));
}

TEST_F(RecordDumpTest, InsertsAreReplacedByTheProgramsOwnRules) {
    const struct {
        const char* name;
        std::u16string text;
        const char* result;
    } cases[] = {
        {"empty", u"", ""},
        {"plain", u"plain", "plain"},
        {"both strings", u"%1-%2!", "one-zwei!"},
        {"out of range", u"[%3%0%99999999999999999999]", "[]"},
        {"leading zeros", u"%0002", "zwei"},
        {"controls", u"a%nb%rc%td%Ne", "a\nb\rc\tdNe"},
        {"doubled percent sign", u"%%1", "%1"},
        {"lone percent sign at the end", u"100%", "100"},
        {"only a percent sign", u"%", ""},
        {"insert at the end", u"x%1", "xone"},
    };
    const RECORD_BYTES bytes(1, 1, {u"one", u"zwei"});
    REPLACEMENT_STRINGS strings;
    strings.Decode(bytes.Record());
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const size_t size = (c.text.size() + 1) * sizeof(WCHAR);
        LOCAL_TEXT text(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, size)));
        memcpy(text.Get(), c.text.c_str(), size);
        ASSERT_TRUE(ExpandInserts(text, static_cast<DWORD>(c.text.size()), strings));
        EXPECT_EQ(c.result, Narrow(text.Get()));

        WCHAR* const before = text.Get();
        const FAIL_CALL none(localAlloc, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_FALSE(ExpandInserts(text, 0, strings));
        EXPECT_EQ(before, text.Get());
    }
}

TEST_F(RecordDumpTest, TheMessageFilesOfASourceAreFoundAndExpanded) {
    STRING path;
    EXPECT_FALSE(GetEventMessageFile(log, TEXT("Source"), path));  // no such source
    root.Write("registry.reg",
               "Windows Registry Editor Version 5.00\r\n\r\n"
               "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application\\Source]\r\n"
               "\"EventMessageFile\"=\"%MESSAGES%\\\\a.dll;b.dll\"\r\n"
               "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application\\Bare]\r\n");
    EXPECT_FALSE(GetEventMessageFile(log, TEXT("Bare"), path));
    setenv("MESSAGES", "C:\\messages", 1);
    ASSERT_TRUE(GetEventMessageFile(log, TEXT("Source"), path));
    EXPECT_EQ("C:\\messages\\a.dll;b.dll", Narrow(path.Text()));
}

// The own module, which has a message table, stands for the message files.
TEST_F(RecordDumpTest, AMessageIsTakenFromTheFirstFileThatHasIt) {
    root.Write("registry.reg",
               "Windows Registry Editor Version 5.00\r\n\r\n"
               "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application\\Source]\r\n"
               "\"EventMessageFile\"=\"a.dll;b.dll\"\r\n");
    const RECORD_BYTES bytes(0x40000002, 4, {u"1.2"});
    const auto module = reinterpret_cast<uintptr_t>(GetModuleHandleW(nullptr));
    const std::string found = "    Message: {KDWK Service version %1 started.";
    const std::string expanded = "    Formatted Message: {KDWK Service version 1.2 started.";
    const std::string none = "    Message not available";
    const struct {
        const char* name;
        DWORD loadError, format;  // why no file loads; why no message is had from one
        LINES lines;              // after the header
    } cases[] = {
        {"in the first", 0, 0, {found, expanded}},
        {"in neither", 0, ERROR_MR_MID_NOT_FOUND, {none}},
        {"no file there",
         ERROR_MOD_NOT_FOUND,
         0,
         {"Uable to open message source file \"a.dll\". ?. Error code = 126.",
          "Uable to open message source file \"b.dll\". ?. Error code = 126.", none}},
        {"both bad",
         0,
         ERROR_INVALID_DATA,
         {"Format message failed. ?. Error code = 13.", "Format message failed. ?. Error code = 13.", none}},
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        const FAIL_CALL loads(loadLibrary, c.loadError ? 0 : module, c.loadError);
        std::optional<FAIL_CALL> formats;
        if (c.format) formats.emplace(formatMessage, 0, c.format);
        LINES lines;
        for (const std::string& line : Dump(bytes, DUMP_MESSAGE | DUMP_FORMATTED_MESSAGE)) {
            if (line[0] == '\n') continue;
            lines.push_back(Anonymous(line.substr(0, line.find("\r\n"))));  // the message ends in line breaks
        }
        EXPECT_EQ(c.lines, lines);
    }
}

}  // namespace
}  // namespace keldwick
