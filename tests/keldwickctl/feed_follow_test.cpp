// That a feed loses nothing and doubles nothing: rotation in each of its ways, truncation, restarts, crashes, full
// disks.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/resource.h>

#include "tests/support/temporary_root.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/feed_aside.h"
#include "tools/keldwickctl/feed_follower.h"
#include "tools/keldwickctl/feed_log.h"
#include "tools/keldwickctl/feed_run.h"
#include "tools/keldwickctl/feed_values.h"
#include "win32/eventlog/log_names.h"
#include "win32/text/utf.h"

namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

struct COLLECTING final : FEED_LINE_TAKER {
    void TakeLine(std::string_view line) override { lines.emplace_back(line); }
    void TakeTooLong(std::string_view beginning) override {
        lines.push_back("too long: " + std::string(beginning.substr(0, 3)));
    }
    std::vector<std::string> lines;
};

using LINES = std::vector<std::string>;

class FOLLOWED : public testing::Test {
protected:
    std::string Path(const std::string& suffix = "") const { return root.Path("audit" + suffix); }
    void Append(const std::string& text, const std::string& suffix = "") const {
        std::ofstream(Path(suffix), std::ios::binary | std::ios::app) << text;
    }
    void Move(const std::string& from, const std::string& to) const { fs::rename(Path(from), Path(to)); }
    void CopyAndTruncate() const {
        fs::copy_file(Path(), Path(".1"), fs::copy_options::overwrite_existing);
        fs::resize_file(Path(), 0);
    }
    LINES Read(FEED_FOLLOWER& follower) const {
        COLLECTING taker;
        while (follower.ReadSome(taker)) {
        }
        return taker.lines;
    }
    TEMPORARY_ROOT root;
};

TEST_F(FOLLOWED, RotationCostsNoLineWhetherItHappensWhileTheFeedRunsOrWhileItIsAway) {
    const auto add = [&](const std::string& line, const std::string& suffix = "") { Append(line + "\n", suffix); };
    // What happens to a file of which "one" and "two" were read, and the lines that must come next.
    const struct {
        const char* name;
        std::function<void()> act;
        LINES lines;
        bool found = true;  // the place where a feed was that comes back
    } cases[] = {
        {"a line in two pieces", [&] { Append("thr"), Append("ee\r\n"); }, {"three"}},
        {"half a line waits for its end", [&] { Append("three\nfo"); }, {"three"}},
        {"renamed", [&] { Move("", ".1"), add("three"); }, {"three"}},
        {"renamed before it was read", [&] { add("three"), Move("", "-20261116"), add("four"); }, {"three", "four"}},
        {"renamed, still written", [&] { Move("", ".old"), add("four"), add("three", ".old"); }, {"three", "four"}},
        {"renamed twice",
         [&] { add("three"), Move("", ".1"), add("four"), Move(".1", ".2"), Move("", ".1"), add("five"); },
         {"three", "four", "five"}},
        {"copied and truncated", [&] { CopyAndTruncate(), add("three"); }, {"three"}},
        {"copied before it was read", [&] { add("three"), CopyAndTruncate(), add("four"); }, {"three", "four"}},
        {"truncated and longer now", [&] { CopyAndTruncate(), add("longer than both"); }, {"longer than both"}},
        {"truncated", [&] { fs::resize_file(Path(), 0), add("x"); }, {"x"}, false},
        {"replaced", [&] { add("new", ".fresh"), Move(".fresh", ""); }, {"new"}, false},
        {"a packed neighbour is not read", [&] { add("rubbish", ".1.gz"), add("three"); }, {"three"}},
        {"another log's files are not read",
         [&] { Move("", ".1"), add("rubbish", "2.1"), add("rubbish", "-bak"), add("three"); },
         {"three"}},
    };
    for (const auto& c : cases)
        for (const bool away : {false, true}) {
            SCOPED_TRACE(c.name);
            for (const auto& each : fs::directory_iterator(fs::path(Path()).parent_path())) fs::remove_all(each);
            Append("one\ntwo\n");
            FEED_FOLLOWER first(Path()), second(Path()), third(Path());
            first.Resume({});
            ASSERT_EQ((LINES{"one", "two"}), Read(first));
            const std::vector<FEED_PLACE> places = first.Places();
            c.act();
            FEED_FOLLOWER& follower = away ? second : first;
            if (away) {
                EXPECT_EQ(c.found, follower.Resume(places));
            }
            EXPECT_EQ(c.lines, Read(follower));
            EXPECT_EQ(LINES(), Read(follower));
            EXPECT_EQ(0u, follower.Behind());
            EXPECT_TRUE(third.Resume(follower.Places()));
            EXPECT_EQ(LINES(), Read(third));
        }
}

TEST_F(FOLLOWED, APlaceInAHalfLineIsBeforeItAndALineOfAnyLengthEndsSomewhere) {
    Append("one\nhal");
    FEED_FOLLOWER follower(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(follower));
    EXPECT_EQ(4u, follower.Places().back().offset);
    Append("f\n" + std::string(LargestFeedLine, 'm') + "\n" + std::string(3 * LargestFeedLine, 'x') + "\nend\n");
    EXPECT_EQ((LINES{"half", std::string(LargestFeedLine, 'm'), "too long: xxx", "end"}), Read(follower));
}

// Feeds lines of JSON through the whole command.
class FEEDING : public FOLLOWED {
protected:
    FEEDING() {
        fs::create_directories(root.Path("eventlog"));
        win32::CreateLogFile(root.Path("eventlog/Security.evt"), 1024 * 1024);
    }
    static std::string Logoff(const std::string& user) {
        return R"({"EventTime":"2026-11-16T08:00:12Z","EventID":4634,"TargetUserName":")" + user + "\"}\n";
    }
    void Feed() const { FollowFile(options, *std::make_unique<LOGOFF_READER>()); }
    LINES Users() const {
        win32::EVT_READER reader;
        OpenReader(reader, "Security");
        std::vector<DWORD> buffer(64 * 1024);
        LINES users;
        DWORD got = 0, needed = 0;
        while (reader.Read(true, reinterpret_cast<BYTE*>(buffer.data()), 256 * 1024, got, needed) == ERROR_SUCCESS)
            for (DWORD at = 0; at < got;) {
                const auto* const bytes = reinterpret_cast<const BYTE*>(buffer.data()) + at;
                const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(bytes);
                users.push_back(win32::ToUtf8(reinterpret_cast<const char16_t*>(bytes + record.StringOffset)));
                at += record.Length;
            }
        return users;
    }
    std::string State() const { return root.Read("feed/test.state"); }

    // A reader of its own, so that what is tested here is the feed: the line's user is the only string.
    class LOGOFF_READER final : public FEED_LINE_READER {
        RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override {
            const nlohmann::json object = ParseFeedObject(line);
            reason = "not a JSON object";
            if (object.is_discarded()) return UNREADABLE;
            event = {};
            event.id = 4634;
            event.strings = {win32::ToUtf16(MemberText(object, "TargetUserName"))};
            event.written = win32::SecondsNow();
            return RECORD;
        }
    };

    FEED_OPTIONS options = {"json", root.Path("audit"), "Security", "test", true};
};

TEST_F(FEEDING, ACrashBetweenWritingAndMarkingNeitherLosesNorDoubles) {
    Append(Logoff("a"));
    Feed();
    const std::string marked = State();
    Append(Logoff("b") + Logoff("b") + Logoff("c"));
    Feed();
    root.Write("feed/test.state", marked);  // written, not marked
    {
        win32::EVT_WRITER other;  // another feed goes on meanwhile
        OpenWriter(other, "Security");
        win32::NEW_EVENT event;
        win32::BYTES record;
        event.strings = {u"other"};
        ASSERT_TRUE(win32::BuildRecord(event, record));
        ASSERT_TRUE(other.Append(*reinterpret_cast<const EVENTLOGRECORD*>(record.data())) && other.Flush());
    }
    Append(Logoff("d") + Logoff("b"));
    Feed();
    EXPECT_EQ((LINES{"a", "b", "b", "c", "other", "d", "b"}), Users());
    ClearLog("Security");
    Append(Logoff("e"));
    Feed();
    Feed();
    EXPECT_EQ(LINES{"e"}, Users()) << "a log that was cleared meanwhile takes what came";
}

TEST_F(FEEDING, AnUnreadableLineIsKeptAsideAndCountedAndStopsNothing) {
    Append("rubbish\n" + Logoff("a") + std::string(LargestFeedLine + 1, 'x') + "\n" + Logoff("b"));
    Feed();
    EXPECT_EQ((LINES{"a", "b"}), Users());
    EXPECT_THAT(State(), HasSubstr("\"unreadable\": 2"));
    EXPECT_THAT(root.Read("feed/test.aside"), HasSubstr(" not a JSON object\nrubbish\n# "));
}

TEST_F(FEEDING, WhatIsKeptAsideIsBoundedAndTheNewestIsThere) {
    FEED_ASIDE aside(root.Path("kept"));
    for (int i = 0; i < 40; ++i) aside.Keep("reason " + std::to_string(i), std::string(100000, 'x'));
    EXPECT_LE(fs::file_size(root.Path("kept")) + fs::file_size(root.Path("kept.old")), FEED_ASIDE::Most);
    EXPECT_THAT(root.Read("kept"), HasSubstr("reason 39"));
}

TEST_F(FEEDING, WhatCannotGoOnSaysWhy) {
    const auto why = [&]() -> std::string {
        try {
            Feed();
        } catch (const COMMAND_ERROR& error) {
            return error.what();
        }
        return "nothing";
    };
    EXPECT_THAT(why(), HasSubstr("audit: there is no such file"));
    Append(Logoff("a"));
    {
        FEED_STATE_FILE running("test");
        EXPECT_THAT(why(), StartsWith("the feed test is running already"));
    }
    root.Write("feed/test.state", "{\"offset\":-1}");
    EXPECT_THAT(why(), HasSubstr("test.state is damaged"));
    fs::remove_all(root.Path("feed"));
    root.Write("feed", "a file where the folder belongs");
    EXPECT_THAT(why(), StartsWith("cannot make "));
    EXPECT_EQ(LINES(), Users());
}

TEST_F(FEEDING, ABatchThatDidNotFitTheDiskIsWrittenOnceWhenItFits) {
    FEED_LOG log("Security");
    win32::NEW_EVENT event;
    std::string reason;
    for (const char16_t* user : {u"a", u"b", u"c"}) {
        event.strings = {user, std::u16string(10000, u'x')};
        ASSERT_TRUE(log.Take(event, reason));
    }
    struct rlimit before;
    ASSERT_EQ(0, getrlimit(RLIMIT_FSIZE, &before));
    struct rlimit tight = before;
    tight.rlim_cur = 4096;
    const auto handler = signal(SIGXFSZ, SIG_IGN);
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &tight));
    const bool fits = log.Flush();
    ASSERT_EQ(0, setrlimit(RLIMIT_FSIZE, &before));
    signal(SIGXFSZ, handler);
    EXPECT_FALSE(fits);
    EXPECT_EQ(LINES(), Users());
    EXPECT_TRUE(log.Flush());
    EXPECT_EQ((LINES{"a", "b", "c"}), Users());
}

}  // namespace
