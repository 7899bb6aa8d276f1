#include "eventlog/event_log.h"

#include <fstream>

#include "reader_test.h"
#include "service/stop.h"

namespace keldwick {
namespace {

using testing::Each;
using testing::Not;

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

TEST_F(EventLogTest, ALogThatIsClearedAndGoneEndsTheProcessing) {
    Open();
    const FAIL_CALL gone(openLog, 0, ERROR_FILE_NOT_FOUND);
    const FAIL_CALL cleared(readLog, FALSE, ERROR_EVENTLOG_FILE_CHANGED);
    EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    EXPECT_EQ("Uable to reopen the Application event log. ?. Error code = 2.", Lines().back());
    EXPECT_TRUE(log.Close());  // nothing is open any more
}

TEST_F(EventLogTest, AReaderThatTheCircleOvertookGoesOnAtTheOldestRecordLeft) {
    Configure("", "'MaxSize'=dword:00010000");
    Open();
    Followed({[&] {
        for (int i = 0; i < 100; ++i) Write(4769, {std::string(1000, 'x')});
        Write(4624, {"last"});
    }});
    EXPECT_EQ(LINES{"4624: last"}, Handled);
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
        const FAIL_CALL fails(readLog, FALSE, c.error);
        EXPECT_EQ(c.error, log.ReadRecords(c.flags, 0, buffer, bytes));
        EXPECT_EQ(0u, bytes);
        EXPECT_EQ(c.lines, Lines());
    }
}

TEST_F(EventLogTest, WhatEndsTheProcessingIsTold) {
    Open();
    {
        const FAIL_CALL fails(createEvent, 0, ERROR_NOT_ENOUGH_MEMORY);
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
    }
    {
        const FAIL_CALL fails(notifyChange, FALSE, ERROR_INVALID_HANDLE);
        Forget();
        EXPECT_EQ(PROCESS_FAILED, Follow(log, {}));
        EXPECT_EQ(LINES(), Lines());
    }
    {
        const FAIL_CALL fails(readLog, FALSE, ERROR_READ_FAULT);
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

TEST_F(EventLogTest, UnknownCountsAreSaidAndDoNotMatter) {
    Open();
    const FAIL_CALL count(countRecords, FALSE, ERROR_ACCESS_DENIED);
    const FAIL_CALL oldest(oldestRecord, FALSE, ERROR_ACCESS_DENIED);
    Followed({[] { Write(528); }});
    EXPECT_EQ("Unable to get event record count. ?. Error code = 5.", Lines().at(0));
    EXPECT_EQ("Unable to get oldest event record number. ?. Error code = 5.", Lines().at(1));
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
    EXPECT_EQ("Uable to open the \"Application\" event log. ?. Error code = 1314.", Lines()[1]);

    const FAIL_CALL never(openLog, 0, ERROR_PRIVILEGE_NOT_HELD);
    SetEvent(stop.Get());
    EXPECT_FALSE(log.Open(LogName));
    ResetEvent(stop.Get());
    const FAIL_CALL unable(waitForOne, WAIT_FAILED, ERROR_INVALID_HANDLE, 0, 1);
    EXPECT_FALSE(log.Open(LogName));
    EXPECT_EQ("Stopping Service: Reason = open event log wait failure", Lines().back());
    EXPECT_EQ(WAIT_OBJECT_0, WaitForSingleObject(stop.Get(), 0));
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

}  // namespace
}  // namespace keldwick
