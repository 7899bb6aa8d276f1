// The reader of the Security log, with the agent's own handlers, and the dumps.
#include "eventlog/event_log.h"

#include "eventlog/record_dump.h"
#include "identity/handlers.h"
#include "tests/support/agent.h"
#include "tests/support/event_strings.h"

namespace keldwick {
namespace {

class READER : public SESSION {
protected:
    READER() {
        Serve();
        EXPECT_TRUE(session->PersistentConnect());
        SetDebugOutputMode(DEBUG_VERBOSE);
    }

    // Opens the log and follows it: does a step each second, then stops. Gives how the following ended.
    DWORD Follow(const std::vector<std::function<void()>>& steps) {
        EXPECT_TRUE(log.Open(TEXT("Security")));
        ResetEvent(stop.Get());
        VIRTUAL_CLOCK::TIME when = clock.Now();
        for (const auto& step : steps) clock.At(when += VIRTUAL_CLOCK::Second, step);
        clock.At(when + VIRTUAL_CLOCK::Second, [this] { SetEvent(stop.Get()); });
        lines.Take();
        reports.clear();
        return log.Process(stop.Get(), changed.Get());
    }
    bool Wrote(const std::string& line) { return DEBUG_LINES::Count(lines.Seen(), line) == 1; }
    // Of the reports, the users.
    LINES Users() const {
        LINES users;
        for (const std::string& report : reports) users.push_back(report.substr(20, report.find(' ', 20) - 20));
        return users;
    }

    EVENT_LOG log{CommandLine, EventHandlers};
    const win32::NEW_EVENT ann = LogonOf(u"ann", u"10.0.0.5"), bob = LogonOf(u"bob", u"10.0.0.6");
};

TEST_F(READER, OnlyNewRecordsOfTheRightEventsAreHandled) {
    Write({ann, ann});
    win32::NEW_EVENT another = LogonOf(u"cid", u"10.0.0.7");
    another.id |= 0x80000000;  // compared as a whole
    EXPECT_EQ(PROCESS_STOPPED, Follow({[&] { Write({bob, another, Event(4769, {})}); }, [&] { Write({ann}); }}));
    EXPECT_EQ((LINES{"bob", "ann"}), Users());
    EXPECT_TRUE(Wrote("EVENT_LOG::Process: Signaled, Records: Count = 3, First = 3, Last = 5"));
}

TEST_F(READER, MoreThanOneBufferAtTheStartIsSkipped) {
    Write(std::vector<win32::NEW_EVENT>(1000, ann));
    EXPECT_EQ(PROCESS_STOPPED, Follow({[this] { Write({bob}); }}));
    EXPECT_EQ(LINES{"bob"}, Users());
}

TEST_F(READER, NoOldRecordOfAWrappedOrDamagedLogIsHandled) {
    logBytes = 0x10000;
    ClearLog();
    for (size_t length = 100; length < 128; length += 3) {  // different places where the ring's end is met
        SCOPED_TRACE(length);
        Write(std::vector<win32::NEW_EVENT>(240, LogonOf(std::u16string(length, 'x'), u"10.0.0.7")));
        for (const bool damaged : {false, false, true}) {  // each time as after a change of settings
            if (damaged) {
                std::fstream file(root.Path("eventlog/Security.evt"), std::ios::in | std::ios::out);
                for (const int place : {4000, 30000, 60000}) file.seekp(place).write("harm", 4);
            }
            EXPECT_EQ(PROCESS_STOPPED, Follow({[this] { Write({LogonOf(u"bob", u"10.0.0.6", u"PC2"), ann}); }}));
            log.Identities().Clear();
            EXPECT_EQ((LINES{"bob", "ann"}), Users());
        }
    }
}

TEST_F(READER, ARecordLargerThanTheBufferMakesItGrow) {
    win32::NEW_EVENT large = ann;
    large.strings.resize(23, std::u16string(15000, 'x'));
    EXPECT_EQ(PROCESS_STOPPED, Follow({[&] { Write({bob, large, LogonOf(u"cid", u"10.0.0.7")}); }}));
    EXPECT_EQ((LINES{"bob", "ann", "cid"}), Users());
}

TEST_F(READER, AClearedLogIsFollowedFromItsNewEnd) {
    Write({ann});
    EXPECT_EQ(PROCESS_STOPPED, Follow({[this] {
                                           ClearLog();
                                           Write({ann});
                                       },
                                       [this] { Write({bob}); }}));
    EXPECT_EQ(LINES{"bob"}, Users());
    EXPECT_TRUE(Wrote("Security event log has been cleared") && Wrote("Security event log reopened"));
}

TEST_F(READER, WhatEndsTheProcessingIsTold) {
    EXPECT_EQ(PROCESS_STOPPED, Follow({}));
    EXPECT_EQ(PROCESS_SETTINGS_CHANGED, Follow({[this] { SetEvent(changed.Get()); }}));
    const FAIL_CALL fails(ReadEventLogW_calls, FALSE, ERROR_READ_FAULT);
    EXPECT_EQ(PROCESS_FAILED, Follow({}));
}

TEST_F(READER, RecordsAreDumpedAsTheOptionsAsk) {
    CommandLine.miniDump = true;
    for (int i = 0; i < 4; ++i) {
        CommandLine.dumpPertinent = (i & 1) != 0;
        CommandLine.dumpNonPertinent = (i & 2) != 0;
        EXPECT_EQ(PROCESS_STOPPED, Follow({[this] { Write({ann, Event(4769, {})}); }}));
        const std::string number = std::to_string(2 * i + 1), next = std::to_string(2 * i + 2);
        EXPECT_EQ((i & 1) != 0, Wrote("\nEvent = ACCOUNT_LOGON, RecordNumber = " + number));
        EXPECT_EQ((i & 2) != 0, Wrote("\nEvent = KERBEROS_SERVICE_TICKET, RecordNumber = " + next));
    }
}

TEST(RecordDumpTest, InsertsAreReplacedByTheProgramsOwnRules) {
    const std::pair<std::u16string, const char*> cases[] = {
        {u"", ""},      {u"%1-%2!", "one-zwei!"}, {u"[%3%0%99999999999999999999]", "[]"}, {u"%0002", "zwei"},
        {u"%%1", "%1"}, {u"100%", "100"},         {u"a%nb%rc%td%Ne", "a\nb\rc\tdNe"},     {u"%", ""}};
    win32::BYTES record;
    ASSERT_TRUE(win32::BuildRecord(Event(1, {u"one", u"zwei"}), record));
    REPLACEMENT_STRINGS strings;
    strings.Decode(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
    for (const auto& [given, expected] : cases) {
        LOCAL_TEXT_OWNER text(static_cast<WCHAR*>(LocalAlloc(LMEM_FIXED, (given.size() + 1) * sizeof(WCHAR))));
        lstrcpyW(text.Get(), given.c_str());
        ASSERT_TRUE(ExpandInserts(text, static_cast<DWORD>(given.size()), strings));
        EXPECT_EQ(expected, Narrow(text.Get()));
    }
}

}  // namespace
}  // namespace keldwick
