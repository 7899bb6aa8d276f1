#include "eventlog/record_dump.h"

#include <cstdlib>
#include <cstring>

#include "eventlog/event_record.h"
#include "reader_test.h"
#include "win32/eventlog/evt_record.h"

namespace keldwick {
namespace {

// A record as the log gives it.
struct RECORD_BYTES {
    RECORD_BYTES(DWORD id, WORD type, const std::vector<std::u16string>& strings, const std::string& data = {}) {
        constexpr DWORD generated = 1700000000;  // 2023-11-14 22:13:20 UTC
        EXPECT_TRUE(win32::BuildRecord(
            {id, type, 0, generated, 0, u"Source", u"PC", strings, {}, {data.begin(), data.end()}}, bytes));
        reinterpret_cast<EVENTLOGRECORD*>(bytes.data())->RecordNumber = 77;
    }
    const EVENTLOGRECORD& Record() const { return *reinterpret_cast<const EVENTLOGRECORD*>(bytes.data()); }
    win32::BYTES bytes;
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

TEST_F(RecordDumpTest, ARecordWithNothingInItSaysSoAndTheMiniDumpIsOneLineWhateverTheDetail) {
    EXPECT_THAT(Dump(RECORD_BYTES(4768, 0, {}), DUMP_STRINGS | DUMP_DATA),
                ElementsAre(AllOf(StartsWith("\nEVENT_4768\n"), testing::HasSubstr("    Type: <Unknown>\n")),
                            "    No replacement strings"));
    EXPECT_EQ("    Data length: 4\n    Data: FFFEFDFC", Dump(RECORD_BYTES(1, 1, {}, "\xFF\xFE\xFD\xFC"), DUMP_DATA)[1]);
    options.miniDump = true;
    EXPECT_EQ(LINES{"\nEvent = 8, RecordNumber = 77"}, Dump(RECORD_BYTES(0xC0000008, 1, {u"a"}), 15));
}

TEST_F(RecordDumpTest, NamesOfEventsAndTypes) {
    std::string names, types;
    for (const DWORD id : {538u, 540u, 528u, 673u, 0x40001210u, 4634u, 65535u})
        names += Narrow(EventName(id).Text()) + " ";
    EXPECT_EQ("LOGOFF LOGON LOCAL_LOGON SERVICE_TICKET ACCOUNT_LOGON ACCOUNT_LOGOFF 65535 ", names);
    for (const WORD type : {0, 1, 2, 3, 4, 8}) types += Narrow(EventTypeName(type)) + ",";
    EXPECT_EQ("<Unknown>,Error,Warning,<Unknown>,Informational,Audit Success,", types);
}

TEST_F(RecordDumpTest, InsertsAreReplacedByTheProgramsOwnRules) {
    const std::pair<std::u16string, const char*> cases[] = {
        {u"", ""},          {u"plain", "plain"}, {u"%1-%2!", "one-zwei!"}, {u"[%3%0%99999999999999999999]", "[]"},
        {u"%0002", "zwei"}, {u"%%1", "%1"},      {u"100%", "100"},         {u"a%nb%rc%td%Ne", "a\nb\rc\tdNe"},
        {u"%", ""},         {u"x%1", "xone"}};
    const RECORD_BYTES bytes(1, 1, {u"one", u"zwei"});
    REPLACEMENT_STRINGS strings;
    strings.Decode(bytes.Record());
    for (const auto& [given, expected] : cases) {
        SCOPED_TRACE(expected);
        const size_t size = (given.size() + 1) * sizeof(WCHAR);
        LOCAL_TEXT text(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, size)));
        memcpy(text.Get(), given.c_str(), size);
        ASSERT_TRUE(ExpandInserts(text, static_cast<DWORD>(given.size()), strings));
        EXPECT_EQ(expected, Narrow(text.Get()));

        WCHAR* const before = text.Get();
        const FAIL_CALL none(localAlloc, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_FALSE(ExpandInserts(text, 0, strings));
        EXPECT_EQ(before, text.Get());
    }
}

TEST_F(RecordDumpTest, TheMessageFilesOfASourceAreFoundAndExpanded) {
    STRING path;
    EXPECT_FALSE(GetEventMessageFile(log, TEXT("Source"), path));  // no such source
    Configure("\\Source", "");
    EXPECT_FALSE(GetEventMessageFile(log, TEXT("Source"), path));
    Configure("\\Source", "'EventMessageFile'='%MESSAGES%\\\\a.dll;b.dll'");
    setenv("MESSAGES", "C:\\messages", 1);
    ASSERT_TRUE(GetEventMessageFile(log, TEXT("Source"), path));
    EXPECT_EQ("C:\\messages\\a.dll;b.dll", Narrow(path.Text()));
}

// The own module, which has a message table, stands for the message files.
TEST_F(RecordDumpTest, AMessageIsTakenFromTheFirstFileThatHasIt) {
    Configure("\\Source", "'EventMessageFile'='a.dll;b.dll'");
    const RECORD_BYTES bytes(0x40000002, 4, {u"1.2"});
    const auto module = reinterpret_cast<uintptr_t>(GetModuleHandleW(nullptr));
    const std::string found = "    Message: {KDWK Service version %1 started.", none = "    Message not available";
    const std::string expanded = "    Formatted Message: {KDWK Service version 1.2 started.";
    const std::string failed = "Format message failed. ?. Error code = 13.";
    const auto missing = [](const std::string& file) {
        return "Uable to open message source file \"" + file + "\". ?. Error code = 126.";
    };
    const struct {
        DWORD loadError, format;  // why no file loads; why no message is had from one
        LINES lines;              // after the header
    } cases[] = {{0, 0, {found, expanded}},
                 {0, ERROR_MR_MID_NOT_FOUND, {none}},
                 {ERROR_MOD_NOT_FOUND, 0, {missing("a.dll"), missing("b.dll"), none}},
                 {0, ERROR_INVALID_DATA, {failed, failed, none}}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::PrintToString(c.lines));
        const FAIL_CALL loads(loadLibrary, c.loadError ? 0 : module, c.loadError);
        std::optional<FAIL_CALL> formats;
        if (c.format) formats.emplace(formatMessage, 0, c.format);
        LINES lines = Dump(bytes, DUMP_MESSAGE | DUMP_FORMATTED_MESSAGE);
        std::erase_if(lines, [](const std::string& line) { return line[0] == '\n'; });
        for (std::string& line : lines) line.resize(std::min(line.size(), line.find("\r\n")));  // its last line breaks
        EXPECT_EQ(c.lines, lines);
    }
}

}  // namespace
}  // namespace keldwick
