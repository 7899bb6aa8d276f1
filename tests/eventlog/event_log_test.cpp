// The reader of the event log over a real log in a machine root, with handlers that record what they get, and the
// dumps.
#include "eventlog/event_log.h"

#include <gmock/gmock.h>

#include <cstring>
#include <fstream>
#include <functional>
#include <optional>

#include "eventlog/record_dump.h"
#include "platform/handles.h"
#include "service/stop.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"
#include "win32/eventlog/evt_record.h"

WRAP_CALL(BOOL, ReadEventLogW, (HANDLE l, DWORD f, DWORD o, LPVOID b, DWORD n, DWORD* r, DWORD* m),
          (l, f, o, b, n, r, m))
WRAP_CALL(BOOL, NotifyChangeEventLog, (HANDLE l, HANDLE e), (l, e))
WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL m, BOOL i, LPCWSTR n), (s, m, i, n))
WRAP_CALL(HLOCAL, LocalAlloc, (UINT f, SIZE_T b), (f, b))

static std::function<std::optional<DWORD>(DWORD count, DWORD milliseconds)> WaitScript;

extern "C" DWORD __real_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds);
extern "C" DWORD __wrap_WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds) {
    if (WaitScript && count == 3) {
        if (const auto result = WaitScript(count, milliseconds)) {
            SetLastError(ERROR_INVALID_HANDLE);
            return *result;
        }
    }
    return __real_WaitForMultipleObjects(count, handles, all, milliseconds);
}

namespace keldwick {
namespace {

using LINES = std::vector<std::string>;
using testing::Each;
using testing::ElementsAre;
using testing::Not;
using testing::StartsWith;

LINES Handled;  // "id: string | string" of every record that came to a handler

void Handle(const EVENTLOGRECORD& record, EVENT_LOG&, const REPLACEMENT_STRINGS& strings) {
    std::string text = std::to_string(record.EventID) + ":";
    for (DWORD i = 0; i < strings.Count(); ++i) text += (i == 0 ? " " : " | ") + Narrow(strings[i]);
    Handled.push_back(text);
}

constexpr EVENT_HANDLER TestHandlers[] = {{528, Handle}, {4624, Handle}};

// The agent's only log that one may write to by the documented calls stands for the Security log here.
constexpr const WCHAR* LogName = TEXT("Application");

class READER_TEST : public ::testing::Test {
protected:
    READER_TEST();
    ~READER_TEST() override;

    static void Write(DWORD id, const std::vector<std::string>& strings = {});
    static void ClearLog();
    // Values of a key below the log's own, with quotes written as "'".
    void Configure(const std::string& key, const std::string& values);

    // Follows the log: before the n-th wait of Process does `beforeWait[n]`, then waits for real; stops after the last.
    DWORD Follow(EVENT_LOG& log, std::vector<std::function<void()>> beforeWait);

    static LINES Lines();  // of the debug output since the last Forget, error texts replaced by "?"
    void Forget();

    TEMPORARY_ROOT root;
    DEBUG_LINES debugLines{DEBUG_VERBOSE};
    COMMAND_LINE options;
    HANDLE_OWNER stop{CreateEventW(nullptr, TRUE, FALSE, nullptr)};
    HANDLE_OWNER settings{CreateEventW(nullptr, FALSE, FALSE, nullptr)};
};

READER_TEST::READER_TEST() {
    StopEvent = stop.Get();
    WaitScript = nullptr;
    Forget();
}

READER_TEST::~READER_TEST() {
    WaitScript = nullptr;
    StopEvent = nullptr;
}

void READER_TEST::Write(DWORD id, const std::vector<std::string>& strings) {
    const EVENT_SOURCE_OWNER source(RegisterEventSourceW(nullptr, TEXT("Test")));
    ASSERT_TRUE(source);
    std::vector<STRING> wide;
    for (const std::string& text : strings) wide.emplace_back(text.c_str());
    std::vector<const WCHAR*> texts;
    for (const STRING& text : wide) texts.push_back(text.Text());
    ASSERT_TRUE(ReportEventW(source.Get(), EVENTLOG_AUDIT_SUCCESS, 0, id, nullptr, static_cast<WORD>(texts.size()), 0,
                             texts.data(), nullptr));
}

void READER_TEST::ClearLog() {
    const EVENT_LOG_OWNER log(OpenEventLogW(nullptr, LogName));
    ASSERT_TRUE(log);
    ASSERT_TRUE(ClearEventLogW(log.Get(), nullptr));
}

void READER_TEST::Configure(const std::string& key, const std::string& values) {
    std::string text =
        "Windows Registry Editor Version 5.00\r\n\r\n"
        "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application" +
        key + "]\r\n" + values + "\r\n";
    std::replace(text.begin(), text.end(), '\'', '"');
    root.Write("registry.reg", text);
}

DWORD READER_TEST::Follow(EVENT_LOG& log, std::vector<std::function<void()>> beforeWait) {
    ResetEvent(stop.Get());
    WaitScript = [this, beforeWait, next = size_t{0}](DWORD, DWORD milliseconds) mutable -> std::optional<DWORD> {
        EXPECT_EQ(15000u, milliseconds);
        if (next == beforeWait.size()) {
            SetEvent(stop.Get());
            return WAIT_OBJECT_0 + 1;
        }
        beforeWait[next++]();
        return std::nullopt;
    };
    const DWORD result = log.Process(stop.Get(), settings.Get());
    WaitScript = nullptr;
    return result;
}

LINES READER_TEST::Lines() {
    LINES lines = DEBUG_LINES::Seen();
    for (std::string& line : lines) {
        const size_t code = line.find(". Error code = ");
        if (code == std::string::npos) continue;
        const size_t text = line.rfind(". ", code - 1) + 2;
        line.replace(text, code - text, "?");
    }
    return lines;
}

void READER_TEST::Forget() {
    debugLines.Forget();
    Handled.clear();
}

class EventLogTest : public READER_TEST {
protected:
    EventLogTest() : log(options, TestHandlers) {}
    // Writes a first record, which is skipped, and opens the log.
    void Open() {
        Write(4624, {"old"});
        ASSERT_TRUE(log.Open(LogName));
        Forget();
    }
    // Follows the log until it is stopped after the last of these.
    void Followed(const std::vector<std::function<void()>>& beforeWait) {
        EXPECT_EQ(PROCESS_STOPPED, Follow(log, beforeWait));
    }
    EVENT_LOG log;
};

TEST_F(EventLogTest, WhatIsAlreadyInTheLogIsSkippedAndOnlyTheNewIsDispatched) {
    Write(4769);
    Open();
    Followed({[] {
                  Write(4624, {"a", "", "c"});
                  Write(4769, {"unwanted"});
                  Write(0x80000000 | 4624);  // compared as a whole
              },
              [] { Write(528); }});
    EXPECT_EQ((LINES{"4624: a |  | c", "528:"}), Handled);
    EXPECT_EQ((LINES{"EVENT_LOG::Process: RecordCount = 2", "EVENT_LOG::Process: OldestRecordNumber = 1",
                     "PositionToEnd: BACKWARDS, Records: Count = 2, First = 2, Last = 1",
                     "PositionToEnd: FORWARDS, Records: Count = 2, First = 1, Last = 2",
                     "EVENT_LOG::Process: Signaled, Records: Count = 3, First = 3, Last = 5",
                     "EVENT_LOG::Process: Signaled, Records: Count = 1, First = 6, Last = 6"}),
              Lines());
}

TEST_F(EventLogTest, AnEmptyLogIsFollowedFromItsFirstRecord) {
    Write(4624);
    ClearLog();
    ASSERT_TRUE(log.Open(LogName));
    Forget();
    Followed({[] { Write(4624); }});
    EXPECT_EQ(1u, Handled.size());
    EXPECT_THAT(Lines(), Each(Not(StartsWith("PositionToEnd"))));
}

TEST_F(EventLogTest, MoreThanOneBufferAtTheStartIsSkippedToTheLastRecord) {
    for (int i = 0; i < 40; ++i) Write(4624, {std::string(2000, 'x')});
    Open();
    Followed({[] { Write(528); }});
    EXPECT_EQ(LINES{"528:"}, Handled);
}

TEST_F(EventLogTest, NoOldRecordOfAWrappedOrDamagedLogIsDispatched) {
    Configure("", "'MaxSize'=dword:00010000");
    for (size_t length = 100; length < 128; length += 3) {  // different places where the ring's end is met
        SCOPED_TRACE(length);
        for (int i = 0; i < 240; ++i) Write(4624, {std::string(length, 'x')});
        ASSERT_TRUE(log.Open(LogName));
        for (const bool damaged : {false, false, true}) {  // each time as after a change of settings
            if (damaged) {
                std::fstream file(root.Path("eventlog/Application.evt"), std::ios::in | std::ios::out);
                for (const int place : {4000, 30000, 60000}) file.seekp(place).write("harm", 4);
            }
            Forget();
            Followed({[] { Write(528, {"new"}); }});
            EXPECT_EQ(LINES{"528: new"}, Handled);
        }
    }
}

TEST_F(EventLogTest, ARecordLargerThanTheBufferMakesItGrow) {
    Open();
    const std::string big(30000, 'x');
    Followed({[&] {
        Write(528);
        Write(4624, {big, big, big});
        Write(528);
    }});
    EXPECT_EQ((LINES{"528:", "4624: " + big + " | " + big + " | " + big, "528:"}), Handled);
}

TEST_F(EventLogTest, AClearedLogIsOpenedAgainAndFollowedFromItsNewEnd) {
    Open();
    Followed({[] {
                  ClearLog();
                  Write(4624, {"between clearing and reopening"});
              },
              [] { Write(528); }});
    EXPECT_EQ(LINES{"528:"}, Handled);
    const LINES lines = Lines();
    EXPECT_EQ("Application event log has been cleared", lines.at(4));
    EXPECT_EQ("Application event log reopened", lines.at(5));
    EXPECT_THAT(lines.at(6), StartsWith("EVENT_LOG::Process: Signaled, Records: Count = 0"));
}

TEST_F(EventLogTest, EveryReadErrorHasItsMeaning) {
    Open();
    const auto unable = [](const std::string& code) {
        return "Unable to read the Application event log. ?. Error code = " + code + ".";
    };
    const struct {
        DWORD flags, error;
        LINES lines;
    } cases[] = {
        {5, ERROR_HANDLE_EOF, {}},
        {6, ERROR_INVALID_PARAMETER, {}},  // of a seek
        {5, ERROR_INVALID_PARAMETER, {unable("87")}},
        {5, ERROR_EVENTLOG_FILE_CORRUPT, {unable("1500")}},
        {5, ERROR_INSUFFICIENT_BUFFER, {unable("122")}},  // without a larger size
        {5, ERROR_EVENTLOG_FILE_CHANGED, {"Application event log has been cleared", "Application event log reopened"}},
    };
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Resize(4096));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.error);
        Forget();
        DWORD bytes = 99;
        const FAIL_CALL fails(ReadEventLogW_calls, FALSE, c.error);
        EXPECT_EQ(c.error, log.ReadRecords(c.flags, 0, buffer, bytes));
        EXPECT_EQ(0u, bytes);
        EXPECT_EQ(c.lines, Lines());
    }
}

TEST_F(EventLogTest, WhatEndsTheProcessingIsTold) {
    Open();
    {
        const FAIL_CALL fails(CreateEventW_calls, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    }
    {
        const FAIL_CALL fails(NotifyChangeEventLog_calls, FALSE, ERROR_INVALID_HANDLE);
        Forget();
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
        EXPECT_EQ(LINES(), Lines());
    }
    {
        const FAIL_CALL fails(ReadEventLogW_calls, FALSE, ERROR_READ_FAULT);
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    }
    const auto process = [&](DWORD firstWait, DWORD thenWaits) {
        WaitScript = [=, first = true](DWORD, DWORD) mutable -> std::optional<DWORD> {
            return std::exchange(first, false) ? firstWait : thenWaits;
        };
        return log.Process(stop.Get(), settings.Get());
    };
    EXPECT_EQ(PROCESS_FAILED, process(WAIT_FAILED, WAIT_FAILED));
    EXPECT_EQ("EVENT_LOG::Process: Wait for event log changes failed. ?. Error code = 6.", Lines().back());
    EXPECT_EQ(PROCESS_SETTINGS_CHANGED, process(WAIT_ABANDONED_0, WAIT_OBJECT_0 + 2))
        << "nothing is done for the first";
    EXPECT_EQ(PROCESS_STOPPED, process(WAIT_TIMEOUT, WAIT_OBJECT_0 + 1));
    EXPECT_EQ("EVENT_LOG::Process: Time-out, Records: Count = 0, First = 0, Last = 0", Lines().back());
}

TEST_F(EventLogTest, RecordsAreDumpedAsTheOptionsAsk) {
    options.miniDump = true;
    Write(4624);
    Write(4769);
    ASSERT_TRUE(log.Open(LogName));
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Resize(65536));
    DWORD bytes = 0;
    ASSERT_EQ(0u, log.ReadRecords(5, 0, buffer, bytes));
    const auto* first = buffer.As<EVENTLOGRECORD>();
    const auto* second = reinterpret_cast<const EVENTLOGRECORD*>(buffer.Data() + first->Length);
    for (int i = 0; i < 4; ++i) {
        Forget();
        LINES expected;
        options.dumpPertinent = (i & 1) != 0;
        if (options.dumpPertinent) expected.push_back("\nEvent = ACCOUNT_LOGON, RecordNumber = 1");
        options.dumpNonPertinent = (i & 2) != 0;
        if (options.dumpNonPertinent) expected.push_back("\nEvent = KERBEROS_SERVICE_TICKET, RecordNumber = 2");
        RECORD_COUNTERS counters;
        EXPECT_TRUE(log.DispatchRecord(*first, counters) && log.DispatchRecord(*second, counters));
        EXPECT_EQ(expected, Lines());
        EXPECT_EQ(LINES{"4624:"}, Handled);
        EXPECT_TRUE(counters.count == 2 && counters.last == 2);
    }
}

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

TEST_F(RecordDumpTest, AnEmptyRecordSaysSoAndTheMiniDumpIsOneLine) {
    EXPECT_THAT(Dump(RECORD_BYTES(4768, 0, {}), DUMP_STRINGS | DUMP_DATA),
                ElementsAre(AllOf(StartsWith("\nEVENT_4768\n"), testing::HasSubstr("    Type: <Unknown>\n")),
                            "    No replacement strings"));
    EXPECT_EQ("    Data length: 4\n    Data: FFFEFDFC", Dump(RECORD_BYTES(1, 1, {}, "\xFF\xFE\xFD\xFC"), DUMP_DATA)[1]);
    options.miniDump = true;
    EXPECT_EQ(LINES{"\nEvent = 8, RecordNumber = 77"}, Dump(RECORD_BYTES(0xC0000008, 1, {u"a"}), 15));
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
        LOCAL_TEXT_OWNER text(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, size)));
        memcpy(text.Get(), given.c_str(), size);
        ASSERT_TRUE(ExpandInserts(text, static_cast<DWORD>(given.size()), strings));
        EXPECT_EQ(expected, Narrow(text.Get()));

        WCHAR* const before = text.Get();
        const FAIL_CALL none(LocalAlloc_calls, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_FALSE(ExpandInserts(text, 0, strings));
        EXPECT_EQ(before, text.Get());
    }
}

}  // namespace
}  // namespace keldwick
