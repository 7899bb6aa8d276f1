#include "eventlog/event_log.h"

#include "reader_test.h"
#include "service/stop.h"

namespace keldwick {
namespace {

class EventLogTest : public READER_TEST {
protected:
    EventLogTest() : log(options, TestHandlers) {}
    EVENT_LOG log;
};

TEST_F(EventLogTest, WhatIsAlreadyInTheLogIsSkippedAndOnlyTheNewIsDispatched) {
    Write(4624, {STRING(TEXT("old"))});
    Write(4769);
    ASSERT_TRUE(log.Open(LogName));
    Forget();
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[] {
                                                Write(4624, {STRING(TEXT("a")), STRING(TEXT("")), STRING(TEXT("c"))});
                                                Write(4769, {STRING(TEXT("unwanted"))});
                                                Write(0x80000000 | 4624);  // compared as a whole
                                            },
                                            [] { Write(528); }}));
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
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[] { Write(4624); }}));
    EXPECT_EQ(1u, Handled.size());
    for (const std::string& line : Lines()) EXPECT_NE(0u, line.find("PositionToEnd"));
}

TEST_F(EventLogTest, MoreThanOneBufferAtTheStartIsSkippedToTheLastRecord) {
    for (int i = 0; i < 40; ++i) Write(4624, {STRING(DWORD{0}), STRING(std::basic_string<WCHAR>(2000, u'x').c_str())});
    ASSERT_TRUE(log.Open(LogName));
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[] { Write(528); }}));
    EXPECT_EQ(LINES{"528:"}, Handled);
}

TEST_F(EventLogTest, ARecordLargerThanTheBufferMakesItGrow) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    const STRING big(std::basic_string<WCHAR>(30000, u'x').c_str());
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[&] {
                                          Write(528);
                                          Write(4624, {big, big, big});
                                          Write(528);
                                      }}));
    ASSERT_EQ(3u, Handled.size());
    EXPECT_EQ(6u + 3 * 30000 + 2 * 3, Handled[1].size());
}

TEST_F(EventLogTest, AClearedLogIsOpenedAgainAndFollowedFromItsNewEnd) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    Forget();
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[] {
                                                ClearLog();
                                                Write(4624, {STRING(TEXT("between clearing and reopening"))});
                                            },
                                            [] { Write(528); }}));
    EXPECT_EQ(LINES{"528:"}, Handled);
    const LINES lines = Lines();
    EXPECT_EQ("Application event log has been cleared", lines.at(4));
    EXPECT_EQ("Application event log reopened", lines.at(5));
    EXPECT_EQ(0u, lines.at(6).find("EVENT_LOG::Process: Signaled, Records: Count = 0"));
}

TEST_F(EventLogTest, ALogThatIsClearedAndGoneEndsTheProcessing) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    Forget();
    const FAIL_CALL gone(openLog, 0, ERROR_FILE_NOT_FOUND);
    const FAIL_CALL cleared(readLog, FALSE, ERROR_EVENTLOG_FILE_CHANGED);
    EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    EXPECT_EQ("Uable to reopen the Application event log. ?. Error code = 2.", Anonymous(Lines().back()));
    EXPECT_TRUE(log.Close());  // nothing is open any more
}

TEST_F(EventLogTest, AReaderThatTheCircleOvertookGoesOnAtTheOldestRecordLeft) {
    root.Write("registry.reg",
               "Windows Registry Editor Version 5.00\r\n\r\n"
               "[HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Application]\r\n"
               "\"MaxSize\"=dword:00010000\r\n");
    Write(528, {STRING(TEXT("first"))});
    ASSERT_TRUE(log.Open(LogName));
    const STRING filler(std::basic_string<WCHAR>(1000, u'x').c_str());
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[&] {
                                          for (int i = 0; i < 100; ++i) Write(4769, {filler});
                                          Write(4624, {STRING(TEXT("last"))});
                                      }}));
    EXPECT_EQ(LINES{"4624: last"}, Handled);
}

TEST_F(EventLogTest, EveryReadErrorHasItsMeaning) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    const struct {
        const char* name;
        DWORD flags, error, result;
        LINES lines;
    } cases[] = {
        {"end", 5, ERROR_HANDLE_EOF, ERROR_HANDLE_EOF, {}},
        {"parameter of a seek", 6, ERROR_INVALID_PARAMETER, ERROR_INVALID_PARAMETER, {}},
        {"parameter",
         5,
         ERROR_INVALID_PARAMETER,
         ERROR_INVALID_PARAMETER,
         {"Unable to read the Application event log. ?. Error code = 87."}},
        {"corrupt",
         5,
         ERROR_EVENTLOG_FILE_CORRUPT,
         ERROR_EVENTLOG_FILE_CORRUPT,
         {"Unable to read the Application event log. ?. Error code = 1500."}},
        {"too small without a larger size",
         5,
         ERROR_INSUFFICIENT_BUFFER,
         ERROR_INSUFFICIENT_BUFFER,
         {"Unable to read the Application event log. ?. Error code = 122."}},
        {"cleared",
         5,
         ERROR_EVENTLOG_FILE_CHANGED,
         ERROR_EVENTLOG_FILE_CHANGED,
         {"Application event log has been cleared", "Application event log reopened"}},
    };
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Resize(4096));
    for (const auto& c : cases) {
        SCOPED_TRACE(c.name);
        Forget();
        DWORD bytes = 99;
        const FAIL_CALL fails(readLog, FALSE, c.error);
        EXPECT_EQ(c.result, log.ReadRecords(c.flags, 0, buffer, bytes));
        EXPECT_EQ(0u, bytes);
        LINES lines;
        for (const std::string& line : Lines()) lines.push_back(Anonymous(line));
        EXPECT_EQ(c.lines, lines);
    }
}

TEST_F(EventLogTest, WhatEndsTheProcessingIsTold) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    {
        const FAIL_CALL fails(createEvent, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    }
    {
        const FAIL_CALL fails(notifyChange, FALSE, ERROR_INVALID_HANDLE);
        Forget();
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
        EXPECT_TRUE(Lines().empty());
    }
    {
        const FAIL_CALL fails(readLog, FALSE, ERROR_READ_FAULT);
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    }
    {
        WaitScript = [](DWORD, DWORD) { return WAIT_FAILED; };
        EXPECT_EQ(PROCESS_FAILED, log.Process(stop.Get(), settings.Get()));
        EXPECT_EQ("EVENT_LOG::Process: Wait for event log changes failed. ?. Error code = 6.",
                  Anonymous(Lines().back()));
    }
    {
        WaitScript = [first = true](DWORD, DWORD) mutable -> std::optional<DWORD> {
            if (!std::exchange(first, false)) return WAIT_OBJECT_0 + 2;
            return WAIT_ABANDONED_0;  // nothing is done for it
        };
        EXPECT_EQ(PROCESS_SETTINGS_CHANGED, log.Process(stop.Get(), settings.Get()));
    }
}

TEST_F(EventLogTest, ATimeOutWithNothingNewIsSaidInZeros) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    WaitScript = [first = true](DWORD, DWORD) mutable -> std::optional<DWORD> {
        return std::exchange(first, false) ? DWORD{WAIT_TIMEOUT} : WAIT_OBJECT_0 + 1;
    };
    EXPECT_EQ(PROCESS_STOPPED, log.Process(stop.Get(), settings.Get()));
    EXPECT_EQ("EVENT_LOG::Process: Time-out, Records: Count = 0, First = 0, Last = 0", Lines().back());
}

TEST_F(EventLogTest, UnknownCountsAreSaidAndDoNotMatter) {
    Write(4624);
    ASSERT_TRUE(log.Open(LogName));
    Forget();
    const FAIL_CALL count(countRecords, FALSE, ERROR_ACCESS_DENIED);
    const FAIL_CALL oldest(oldestRecord, FALSE, ERROR_ACCESS_DENIED);
    EXPECT_EQ(PROCESS_STOPPED, Follow(log, {[] { Write(528); }}));
    EXPECT_EQ("Unable to get event record count. ?. Error code = 5.", Anonymous(Lines().at(0)));
    EXPECT_EQ("Unable to get oldest event record number. ?. Error code = 5.", Anonymous(Lines().at(1)));
    EXPECT_EQ(LINES{"528:"}, Handled);
}

TEST_F(EventLogTest, OpeningIsTriedAgainUntilItWorksOrTheServiceStops) {
    Write(4624);
    {
        const FAIL_CALL twice(openLog, 0, ERROR_PRIVILEGE_NOT_HELD, 0, 2);
        const FAIL_CALL minutes(waitForOne, WAIT_TIMEOUT, 0, 0, 2);
        EXPECT_TRUE(log.Open(LogName));
    }
    ASSERT_EQ(5u, Lines().size());
    EXPECT_EQ("Opening Security event log ...", Lines()[4]);
    EXPECT_EQ("Uable to open the \"Application\" event log. ?. Error code = 1314.", Anonymous(Lines()[1]));

    const FAIL_CALL never(openLog, 0, ERROR_PRIVILEGE_NOT_HELD);
    SetEvent(stop.Get());
    EXPECT_FALSE(log.Open(LogName));
    ResetEvent(stop.Get());
    Forget();
    const FAIL_CALL unable(waitForOne, WAIT_FAILED, ERROR_INVALID_HANDLE, 0, 1);
    EXPECT_FALSE(log.Open(LogName));
    EXPECT_EQ("Stopping Service: Reason = open event log wait failure", Lines().back());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stop.Get(), 0));
}

TEST_F(EventLogTest, RecordsAreDumpedAsTheOptionsAsk) {
    options.miniDump = true;
    const struct {
        bool pertinent, nonPertinent;
        LINES lines;
    } cases[] = {
        {false, false, {}},
        {true, false, {"\nEvent = ACCOUNT_LOGON, RecordNumber = 1"}},
        {false, true, {"\nEvent = KERBEROS_SERVICE_TICKET, RecordNumber = 2"}},
        {true,
         true,
         {"\nEvent = ACCOUNT_LOGON, RecordNumber = 1", "\nEvent = KERBEROS_SERVICE_TICKET, RecordNumber = 2"}},
    };
    Write(4624);
    Write(4769);
    ASSERT_TRUE(log.Open(LogName));
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Resize(65536));
    DWORD bytes = 0;
    ASSERT_EQ(0u, log.ReadRecords(5, 0, buffer, bytes));
    const auto* first = buffer.As<EVENTLOGRECORD>();
    const auto* second = reinterpret_cast<const EVENTLOGRECORD*>(buffer.Data() + first->Length);
    for (const auto& c : cases) {
        Forget();
        options.dumpPertinent = c.pertinent;
        options.dumpNonPertinent = c.nonPertinent;
        RECORD_COUNTERS counters;
        EXPECT_TRUE(log.DispatchRecord(*first, counters));
        EXPECT_TRUE(log.DispatchRecord(*second, counters));
        EXPECT_EQ(c.lines, Lines());
        EXPECT_EQ(LINES{"4624:"}, Handled);
        EXPECT_EQ(2u, counters.count);
        EXPECT_EQ(2u, counters.last);
    }
}

}  // namespace
}  // namespace keldwick
