// That a feed loses nothing and doubles nothing: rotation in each of its ways, truncation, restarts, crashes, full
// disks.
#include <fcntl.h>
#include <gmock/gmock.h>
#include <signal.h>
#include <spawn.h>
#include <sys/file.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <deque>
#include <optional>
#include <random>
#include <thread>

#include "tests/support/temporary_root.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/feed/agent_wait.h"
#include "tools/feed/feed.h"
#include "tools/feed/follower.h"
#include "tools/feed/log.h"
#include "tools/feed/state.h"
#include "tools/keldwickctl/status.h"
#include "win32/eventlog/log_names.h"
#include "win32/text/utf.h"

// The call of wrapped-calls.txt: the tick count goes on by so much with each call.
static std::atomic<ULONGLONG> ticksPerCall{0}, ticksAhead{0};
static std::atomic<int> tickCalls{0};
extern "C" {
ULONGLONG __real_GetTickCount64();
ULONGLONG __wrap_GetTickCount64();
ULONGLONG __wrap_GetTickCount64() {
    ++tickCalls;
    return __real_GetTickCount64() + (ticksAhead += ticksPerCall);
}
}

namespace tools::feed {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;
using testing::StartsWith;

using LINES = std::vector<std::string>;

struct COLLECTING final : LINE_TAKER {
    void TakeLine(std::string_view line) override { lines.emplace_back(line); }
    void TakeTooLong(std::string_view beginning) override {
        lines.push_back("too long: " + std::string(beginning.substr(0, 3)));
    }
    bool Full() const override { return lines.size() >= most; }
    LINES lines;
    size_t most = std::string::npos;
};

// A log as its writers and what rotates it make it, and what a follower must give of it: each line once, in the order
// of the files, the oldest first. Times of writing are set, a second apart, so that they tell the files' order.
class MODEL {
public:
    enum WAY { NUMBERED, DATED, COPIED };

    MODEL(const std::string& file, WAY how) : path(file), way(how) { files.emplace_back(); }

    void Append(const std::string& text, size_t back = 0) {  // to the file, or one rotated so many times
        LOGGED& file = files[files.size() - 1 - back];
        file.made = true;
        file.half += text;
        for (size_t end; (end = file.half.find('\n')) != std::string::npos; file.half.erase(0, end + 1))
            file.lines.push_back(file.half.substr(0, end));
        std::ofstream(NameOf(back), std::ios::binary | std::ios::app) << text;
        Touch(NameOf(back));
    }
    bool EndsInALine() const { return files.back().half.empty(); }

    void Rotate() {
        if (!fs::exists(path)) return;
        for (size_t back = way == DATED ? 0 : files.size() - 1; back > 0; --back)
            fs::rename(NameOf(back), NameOf(back + 1));
        const std::string rotated = way == DATED ? path + "-" + std::to_string(20260000 + files.size()) : path + ".1";
        if (way == COPIED) {
            fs::copy_file(path, rotated);
            Touch(rotated);
            fs::resize_file(path, 0);
            Touch(path);
        } else {
            fs::rename(path, rotated);
        }
        files.emplace_back();
    }

    // The next lines, at most so many.
    LINES Take(size_t most) {
        LINES taken;
        for (LOGGED& file : files)
            while (taken.size() < most && file.read < file.lines.size()) taken.push_back(file.lines[file.read++]);
        for (LOGGED& file : files) file.seen = file.seen || (file.made && taken.size() < most);
        return taken;
    }
    void Mark() {
        for (LOGGED& file : files) file.marked = file.read, file.known = file.seen;
    }
    void GoBack() {
        for (LOGGED& file : files) file.read = file.marked;
    }
    bool IsKnown(size_t back) const { return back < files.size() && files[files.size() - 1 - back].known; }

private:
    struct LOGGED {
        LINES lines;
        std::string half;
        size_t read = 0, marked = 0;
        bool made = false, seen = false, known = false;  // it is there, was met by a reader, has a marked place
    };
    std::string NameOf(size_t back) const {
        if (back == 0) return path;
        return way == DATED ? path + "-" + std::to_string(20260000 + files.size() - back)
                            : path + "." + std::to_string(back);
    }
    void Touch(const std::string& name) { fs::last_write_time(name, written += std::chrono::seconds(1)); }

    const std::string path;
    const WAY way;
    std::deque<LOGGED> files;
    fs::file_time_type written = fs::file_time_type::clock::now() - std::chrono::hours(3);
};

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
    // The next lines, at most so many.
    static LINES Read(FOLLOWER& follower, size_t most = std::string::npos) {
        COLLECTING taker;
        taker.most = most;
        while (!taker.Full() && follower.ReadSome(taker)) {
        }
        return taker.lines;
    }
    void Clear() const {
        for (const auto& each : fs::directory_iterator(fs::path(Path()).parent_path())) fs::remove_all(each);
    }
    TEMPORARY_ROOT root;
};

TEST_F(FOLLOWED, RandomRotationsAndRestartsCostNoLineAndDoubleNone) {
    enum STEP { APPEND, APPEND_MORE, HALF, ROTATE, LATE, READ, READ_ALL, MARK, RESTART, CRASH, STEPS };
    for (unsigned seed = 1; seed <= 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Clear();
        std::mt19937 random(seed);
        MODEL model(Path(), static_cast<MODEL::WAY>(seed % 3));
        auto follower = std::make_unique<FOLLOWER>(Path());
        follower->Resume({});
        POSITION marked = follower->Position();
        const auto mark = [&] {
            marked = follower->Position();
            model.Mark();
        };
        const auto read = [&](size_t most) { EXPECT_EQ(model.Take(most), Read(*follower, most)); };
        int number = 1000;
        for (int step = 0; step < 60 && !HasFailure(); ++step) {
            const std::string line = std::to_string(++number) + std::string(1 + random() % 40, 'x') + "\n";
            switch (random() % STEPS) {
                case APPEND:
                case APPEND_MORE:
                    model.Append(line);
                    break;
                case HALF:
                    model.Append(
                        line.substr(0, 4 + line.size() / 8));  // with its number, or it would begin like others
                    break;
                case ROTATE: {
                    const bool whole = model.EndsInALine();
                    if (!whole && seed % 3 == MODEL::COPIED) model.Append(line);
                    model.Rotate();
                    if (!whole && seed % 3 != MODEL::COPIED) model.Append(line, 1);  // its writer's last
                    break;
                }
                case LATE:
                    if (seed % 3 == MODEL::COPIED || !model.IsKnown(1)) break;
                    read(std::string::npos);
                    model.Append(line, 1);
                    read(std::string::npos);
                    mark();
                    break;
                case READ:
                    read(1 + random() % 4);
                    break;
                case READ_ALL:
                    read(std::string::npos);
                    break;
                case RESTART:
                    mark();
                    [[fallthrough]];
                case CRASH:
                    model.GoBack();
                    follower = std::make_unique<FOLLOWER>(Path());
                    EXPECT_TRUE(follower->Resume(marked));
                    break;
                case MARK:
                    mark();
                    break;
            }
        }
        read(std::string::npos);
        EXPECT_EQ(0u, follower->Behind());
    }
}

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
        {"renamed twice, nothing since", [&] { Move("", ".2"), add("three"), Move("", ".1"); }, {"three"}},
        {"copied and truncated", [&] { CopyAndTruncate(), add("three"); }, {"three"}},
        {"copied before it was read", [&] { add("three"), CopyAndTruncate(), add("four"); }, {"three", "four"}},
        {"truncated and longer now", [&] { CopyAndTruncate(), add("longer than both"); }, {"longer than both"}},
        {"copied and truncated twice",
         [&] { add("three"), CopyAndTruncate(), Move(".1", ".2"), add("four"), CopyAndTruncate(), add("five"); },
         {"three", "four", "five"}},
        {"copied and truncated twice over one copy, of which the first was read",
         [&] { CopyAndTruncate(), add("three"), CopyAndTruncate(), add("four"); },
         {"three", "four"},
         false},
        {"truncated", [&] { fs::resize_file(Path(), 0), add("x"); }, {"x"}, false},
        {"replaced", [&] { add("new", ".fresh"), Move(".fresh", ""); }, {"new"}, false},
        {"replaced by a copy of itself", [&] { fs::copy_file(Path(), Path("~")), Move("~", ""), add("x"); }, {"x"}},
        {"rewritten at its old length",
         [&] { fs::resize_file(Path(), 0), add("six"), add("ten"); },
         {"six", "ten"},
         false},
        {"copied by hand, then renamed",
         [&] { fs::copy_file(Path(), Path(".1")), Move("", ".2"), add("three"); },
         {"three"}},
        {"copied by hand and written on, then renamed",
         [&] { fs::copy_file(Path(), Path(".1")), add("three", ".1"), Move("", ".2"), add("four"); },
         {"three", "four"}},
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
            fs::last_write_time(Path(), fs::file_time_type::clock::now() - std::chrono::seconds(1));
            FOLLOWER first(Path()), second(Path()), third(Path());
            first.Resume({});
            ASSERT_EQ((LINES{"one", "two"}), Read(first));
            const POSITION position = first.Position();
            c.act();
            FOLLOWER& follower = away ? second : first;
            if (away) {
                EXPECT_EQ(c.found, follower.Resume(position));
            }
            EXPECT_EQ(c.lines, Read(follower));
            EXPECT_EQ(LINES(), Read(follower));
            EXPECT_EQ(0u, follower.Behind());
            EXPECT_TRUE(third.Resume(follower.Position()));
            EXPECT_EQ(LINES(), Read(third));
        }
}

TEST_F(FOLLOWED, WhatWasRotatedAwayBeforeItsFirstLineWasReadIsReadAndWhatWasThereBeforeTheFeedIsNot) {
    const struct {
        const char* name;
        std::function<void()> act;
        LINES lines;
    } cases[] = {
        {"copied and truncated", [&] { Append("one\n"), CopyAndTruncate(), Append("two\n"); }, {"one", "two"}},
        {"copied, nothing since", [&] { Append("one\n"), CopyAndTruncate(); }, {"one"}},
        {"renamed", [&] { Append("one\n"), Move("", ".1"), Append("two\n"); }, {"one", "two"}},
        {"renamed, nothing since", [&] { Append("one\n"), Move("", ".1"); }, {"one"}},
        {"nothing happened", [&] { Append("one\n"); }, {"one"}},
    };
    for (const auto& c : cases)
        for (const bool there : {false, true})
            for (const bool away : {false, true}) {
                SCOPED_TRACE(c.name);
                for (const auto& each : fs::directory_iterator(fs::path(Path()).parent_path())) fs::remove_all(each);
                Append("of old\n", ".2");
                fs::last_write_time(Path(".2"), fs::file_time_type::clock::now() - std::chrono::seconds(1));
                if (there) Append("");
                FOLLOWER first(Path()), second(Path());
                first.Resume({});
                EXPECT_EQ(LINES(), Read(first));
                c.act();
                FOLLOWER& follower = away ? second : first;
                if (away) {
                    EXPECT_TRUE(follower.Resume(first.Position()));
                }
                EXPECT_EQ(c.lines, Read(follower));
                EXPECT_EQ(LINES(), Read(follower));
            }
}

TEST_F(FOLLOWED, AClockThatWasSetBackHidesNothing) {
    const auto future = fs::file_time_type::clock::now() + std::chrono::hours(1);
    for (const bool touched : {false, true}) {  // the file that was read, since
        for (const auto& each : fs::directory_iterator(fs::path(Path()).parent_path())) fs::remove_all(each);
        Append("old\n", ".3");
        fs::last_write_time(Path(".3"), future);
        Append("one\n");
        fs::last_write_time(Path(), future);
        FOLLOWER first(Path()), second(Path());
        first.Resume({});
        EXPECT_EQ(LINES{"one"}, Read(first));
        if (touched) {
            Append("two\n");
            EXPECT_EQ(LINES{"two"}, Read(first));
        }
        Move("", ".2");
        Append("three\n", ".1");
        Append("four\n");
        EXPECT_TRUE(second.Resume(first.Position()));
        EXPECT_EQ((LINES{"three", "four"}), Read(second));
        EXPECT_EQ((LINES{"three", "four"}), Read(first));
    }
}

TEST_F(FOLLOWED, AReaderIsShownWhatStoodBeforeThePlaceAcrossRotation) {
    Append("long ago\n", ".2");
    Append("one\n", ".1");
    Append("two\n");
    fs::last_write_time(Path(".2"), fs::file_time_type::clock::now() - std::chrono::seconds(2));
    fs::last_write_time(Path(".1"), fs::file_time_type::clock::now() - std::chrono::seconds(1));
    FOLLOWER first(Path()), second(Path());
    first.Resume({});
    EXPECT_EQ(LINES{"two"}, Read(first));
    EXPECT_TRUE(second.Resume(first.Position()));
    COLLECTING remembered;
    second.Remember(6, remembered);
    EXPECT_EQ((LINES{"one", "two"}), remembered.lines);
    EXPECT_EQ(LINES(), Read(second));
}

TEST_F(FOLLOWED, WhatIsStillToBeReadIsNotShownAsIfItHadBeen) {
    Append("");
    FOLLOWER first(Path()), second(Path());
    first.Resume({});
    EXPECT_EQ(LINES(), Read(first));
    Append("one\n");
    CopyAndTruncate();
    Append("two\n");
    EXPECT_TRUE(second.Resume(first.Position()));
    COLLECTING remembered;
    second.Remember(1000, remembered);
    EXPECT_EQ(LINES(), remembered.lines);
    EXPECT_EQ((LINES{"one", "two"}), Read(second));
}

// Root may read everything.
void AsAnother(const std::function<void()>& act) {
    const uid_t self = geteuid();
    ASSERT_EQ(0, self == 0 ? seteuid(65534) : 0);
    act();
    ASSERT_EQ(0, seteuid(self));
}

TEST_F(FOLLOWED, ANewFileThatMayNotBeReadYetIsAskedForAgainAndOneToGoOnInIsNamed) {
    Append("one\n");
    FOLLOWER follower(Path()), later(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(follower));
    const POSITION position = follower.Position();
    Move("", ".1");
    Append("two\n");
    chmod(root.Path("").c_str(), 0755);
    chmod(Path().c_str(), 0);
    AsAnother([&] { EXPECT_EQ(LINES(), Read(follower)); });
    EXPECT_TRUE(follower.Refused());
    chmod(Path().c_str(), 0644);
    EXPECT_EQ(LINES{"two"}, Read(follower));
    EXPECT_FALSE(follower.Refused());
    chmod(Path(".1").c_str(), 0);
    AsAnother([&] {
        EXPECT_THAT([&] { later.Resume(position); },
                    testing::ThrowsMessage<COMMAND_ERROR>(StartsWith("cannot read " + Path(".1"))));
    });
}

TEST_F(FOLLOWED, ARenamedFileIsReadOnAfterARestartToo) {
    Append("one\n");
    FOLLOWER first(Path()), second(Path());
    first.Resume({});
    Read(first);
    Move("", ".1");
    Append("two\n");
    EXPECT_EQ(LINES{"two"}, Read(first));
    EXPECT_TRUE(second.Resume(first.Position()));
    EXPECT_EQ(LINES(), Read(second));
    Append("late\n", ".1");
    EXPECT_EQ(LINES{"late"}, Read(second));
}

TEST_F(FOLLOWED, WhatIsHeldIsReadThoughRotationOverwritesIt) {
    FOLLOWER follower(Path());
    follower.Resume({});
    for (const char* line : {"one\n", "two\n", "three\n", "four\n"}) {
        if (fs::exists(Path())) Move("", ".old");
        Append(line);
        follower.HoldSuccessors();
    }
    EXPECT_EQ((LINES{"one", "two", "three", "four"}), Read(follower));
}

TEST_F(FOLLOWED, AFileThatWasReadToItsEndIsNotReadAgainFromACopy) {
    FOLLOWER follower(Path());
    follower.Resume({});
    for (int i = 0; i < 10; ++i) {  // more than are kept open
        if (i > 0) Move("", "." + std::to_string(100 - i));
        Append("line " + std::to_string(i) + "\n");
        EXPECT_EQ(LINES{"line " + std::to_string(i)}, Read(follower));
    }
    fs::copy_file(Path(".99"), Path(".5"));
    Move("", ".2");
    Append("new\n");
    EXPECT_EQ(LINES{"new"}, Read(follower));
}

TEST_F(FOLLOWED, ACopyOverARotatedFileThatIsStillOpenIsNotReadAgainAndItsRestIsRead) {
    Append("zero\n");
    FOLLOWER follower(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"zero"}, Read(follower));
    Move("", ".1");
    for (const char* line : {"one", "two", "three"}) {
        SCOPED_TRACE(line);
        Append(std::string(line) + "\n");
        EXPECT_EQ(LINES{line}, Read(follower));
        Append(std::string("after ") + line + "\n");
        CopyAndTruncate();
        EXPECT_EQ(LINES{std::string("after ") + line}, Read(follower));
    }
    fs::copy_file(Path(".1"), Path(".2"));
    Append("written late\n", ".1");
    Append("", ".2");
    EXPECT_EQ(LINES{"written late"}, Read(follower));
    Append("last\n");
    fs::copy_file(Path(), Path(".1"), fs::copy_options::overwrite_existing);
    EXPECT_EQ(LINES{"last"}, Read(follower));
    FOLLOWER later(Path());
    EXPECT_TRUE(later.Resume(follower.Position()));
    EXPECT_EQ(LINES(), Read(later));
}

TEST_F(FOLLOWED, ACopyOfWhatWasReadLongAgoThatWasMadeWhileTheFeedWasAwayIsNotReadAgain) {
    const auto now = fs::file_time_type::clock::now();
    Append("long ago\n", ".1");
    Append("one\n");
    fs::last_write_time(Path(".1"), now - std::chrono::seconds(20));
    fs::last_write_time(Path(), now - std::chrono::seconds(10));
    FOLLOWER first(Path()), second(Path());
    first.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(first));
    fs::copy_file(Path(".1"), Path(".1-20261116"));
    Append("and more\n", ".1-20261116");
    Move(".1", ".2");
    Move("", ".1");
    Append("two\n");
    EXPECT_TRUE(second.Resume(first.Position()));
    EXPECT_EQ((LINES{"and more", "two"}), Read(second));
}

TEST_F(FOLLOWED, APlaceIsOfWhatWasReadWhateverTheFileHoldsNow) {
    Append("one\ntwo\n");
    FOLLOWER follower(Path());
    follower.Resume({});
    Read(follower);
    const std::vector<PLACE> places = follower.Position().places;
    fs::resize_file(Path(), 0);
    EXPECT_EQ(places, follower.Position().places);
    Append("six\nten\n");
    EXPECT_EQ(places, follower.Position().places);
}

TEST_F(FOLLOWED, APlaceInAHalfLineIsBeforeItAndALineOfAnyLengthEndsSomewhere) {
    Append("one\nhal");
    FOLLOWER follower(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(follower));
    EXPECT_EQ(4u, follower.Position().places.back().offset);
    Append("f\n" + std::string(MaxLineBytes, 'm') + "\n" + std::string(3 * MaxLineBytes, 'x') + "\nend\n");
    EXPECT_EQ((LINES{"half", std::string(MaxLineBytes, 'm'), "too long: xxx", "end"}), Read(follower));
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
    class LOGOFF_READER final : public LINE_READER {
        RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string& reason) override {
            const nlohmann::json object = ParseObject(line);
            reason = "not a JSON object";
            if (object.is_discarded()) return UNREADABLE;
            event = {};
            event.id = 4634;
            event.strings = {win32::ToUtf16(MemberText(object, "TargetUserName"))};
            event.written = win32::SecondsNow();
            return RECORD;
        }
    };

    OPTIONS options = {"json", root.Path("audit"), "Security", "test", true};
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

TEST_F(FEEDING, AStopLetsWhatWasReadIntoTheLogUnlessAnAgentIsWaitedFor) {
    options.once = false;
    sigset_t stop, before;
    sigemptyset(&stop);
    sigaddset(&stop, SIGTERM);
    ASSERT_EQ(0, pthread_sigmask(SIG_BLOCK, &stop, &before));
    Append(Logoff("a"));
    raise(SIGTERM);
    Feed();
    EXPECT_EQ(LINES{"a"}, Users());
    EXPECT_THAT(State(), HasSubstr("\"records\": 1"));
    root.Write("Keldwick.identities", "{}");
    Append(Logoff("b"));
    raise(SIGTERM);
    Feed();
    EXPECT_EQ(LINES{"a"}, Users()) << "the next feed writes it";
    fs::remove(root.Path("Keldwick.identities"));
    raise(SIGTERM);
    Feed();
    EXPECT_EQ((LINES{"a", "b"}), Users());
    pthread_sigmask(SIG_SETMASK, &before, nullptr);
}

TEST_F(FEEDING, AnUnreadableLineIsKeptAsideAndCountedAndStopsNothing) {
    Append("rubbish\n" + Logoff("a") + std::string(MaxLineBytes + 1, 'x') + "\n" + Logoff("b"));
    Feed();
    EXPECT_EQ((LINES{"a", "b"}), Users());
    EXPECT_THAT(State(), HasSubstr("\"unreadable\": 2"));
    EXPECT_THAT(root.Read("feed/test.aside"), HasSubstr(" not a JSON object\nrubbish\n# "));
}

TEST_F(FEEDING, WhatIsKeptAsideIsBoundedAndTheNewestIsThere) {
    fs::create_directory(root.Path("feed"));
    ASIDE aside("kept");
    for (int i = 0; i < 40; ++i) aside.Keep("reason " + std::to_string(i), std::string(100000, 'x'));
    EXPECT_LE(fs::file_size(root.Path("feed/kept.aside")) + fs::file_size(root.Path("feed/kept.aside.old")),
              ASIDE::MaxBytes);
    EXPECT_THAT(root.Read("feed/kept.aside"), HasSubstr("reason 39"));
}

TEST_F(FEEDING, WhatIsKeptAsideWaitsForAnotherStreamsTurn) {
    fs::create_directory(root.Path("feed"));
    std::optional<TURN> turn(std::in_place, "kept");
    std::atomic<bool> done = false;
    const int before = tickCalls;  // one when the wait begins, and one after each attempt
    std::thread keeping([&] {
        ASIDE("kept").Keep("reason", "line");
        done = true;
    });
    while (!done && tickCalls < before + 2) std::this_thread::yield();
    EXPECT_FALSE(fs::exists(root.Path("feed/kept.aside")));
    turn.reset();
    keeping.join();
    EXPECT_THAT(root.Read("feed/kept.aside"), HasSubstr("line"));
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
        STATE_FILE running("test");
        EXPECT_THAT(why(), StartsWith("the feed test is running already"));
    }
    const std::string state = root.Path("feed/test.state");
    const std::string counts = R"("behind":0,"nextRecord":1,"records":0,"skipped":0,"unreadable":0})";
    const struct {
        std::function<void()> prepare;
        std::string why;
    } cases[] = {
        {[&] { root.Write("feed/test.state", "{\"offset\":-1}"); }, "test.state is damaged"},
        {[&] { root.Write("feed/test.state", R"({"file":"/other",)" + counts); },
         "the feed test follows /other; --name gives this one its own name"},
        {[&] { root.Write("feed/test.state", R"({"log":"Application",)" + counts); },
         "the feed test writes to the Application log; --name gives"},
        {[&] { mkfifo(state.c_str(), 0600); }, "test.state is damaged (" + state + " is a pipe; "},
        {[&] { fs::create_symlink(Path(), state); }, "test.state is damaged (" + state + " is a link; "},
        {[&] { fs::remove_all(root.Path("feed")), root.Write("feed", "a file where the folder belongs"); },
         "cannot make " + root.Path("feed")},
        {[&] { fs::remove_all(root.Path("eventlog")); }, "there is no Security log"},
    };
    for (const auto& c : cases) {
        c.prepare();
        EXPECT_THAT(why(), HasSubstr(c.why));
        std::error_code none;
        fs::remove(state, none);
        if (!fs::is_directory(fs::symlink_status(root.Path("feed")))) fs::remove(root.Path("feed"));
    }
    EXPECT_FALSE(fs::exists(root.Path("feed"))) << "made in what is no machine root";
}

TEST_F(FEEDING, AStateIsReplacedWhateverStandsInItsPlace) {
    STATE_FILE files("test");
    root.Write("victim", "somebody's");
    fs::create_hard_link(root.Path("victim"), root.Path("feed/test.state.new"));
    root.Write("feed/test.state", "rubbish");
    STATE state;
    state.records = 5;
    COUNTS added = {2, 0, 0};
    ASSERT_TRUE(files.Save(state, added));
    EXPECT_EQ(0u, added.records);
    EXPECT_EQ("somebody's", root.Read("victim"));
    EXPECT_THAT(State(), HasSubstr("\"records\": 7"));
}

TEST_F(FEEDING, AStreamSetsADamagedStateAsideAndBeginsItsCountsAnew) {
    STATE_FILE files("test", KIND::STREAM);
    root.Write("feed/test.state", "rubbish");
    STATE state;
    std::string damage;
    EXPECT_FALSE(files.Load(state, damage));
    EXPECT_THAT(damage, HasSubstr("test.state is damaged (JSON): set aside as "));
    EXPECT_EQ("rubbish", root.Read("feed/test.state.damaged"));
    EXPECT_FALSE(files.Load(state, damage));
    EXPECT_EQ("", damage);
}

TEST_F(FEEDING, ATurnThatAnotherKeepsFailsInTime) {
    STATE_FILE files("test");
    STATE state;
    COUNTS added = {2, 0, 0};
    {
        const win32::DESCRIPTOR other(open(root.Path("feed/test.writing").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
        ASSERT_EQ(0, flock(other.Get(), LOCK_EX));
        ticksPerCall = 1000;
        EXPECT_FALSE(files.Save(state, added));
        EXPECT_EQ(EAGAIN, errno);
        ticksPerCall = 0;
    }
    EXPECT_TRUE(files.Save(state, added));
}

TEST_F(FEEDING, OnlyAPlainFileIsOpenedToBeFollowed) {
    mkfifo(Path().c_str(), 0600);
    const win32::DESCRIPTOR opens(inotify_init1(IN_NONBLOCK | IN_CLOEXEC));
    ASSERT_LE(0, inotify_add_watch(opens.Get(), Path().c_str(), IN_OPEN));
    EXPECT_THROW(FOLLOWED_FILE::Open(Path()), COMMAND_ERROR);
    char event[512];
    EXPECT_EQ(-1, read(opens.Get(), event, sizeof(event))) << "it was opened";
}

TEST_F(FEEDING, ALogThatIsNotOnTheDiskIsNoPlaceToMark) {
    LOG log("Security");
    EXPECT_TRUE(log.Sync());
    fs::remove(root.Path("eventlog/Security.evt"));
    EXPECT_FALSE(log.Sync());
}

TEST_F(FEEDING, HowFarAFeedIsBehindIsWhatAllItsFilesHoldBeyondTheirPlaces) {
    Append("of old\n", ".3");
    Append(Logoff("a"));
    Feed();
    mkfifo(root.Path("feed/other.lock").c_str(), 0600);
    const auto behind = [] {
        for (const FEED_STATUS& each : ReadFeeds())
            if (each.name == "test") return each.behind;
        return ~0ULL;
    };
    EXPECT_EQ(0u, behind());
    Append("12345\n");
    Move("", ".2");
    EXPECT_EQ(6u, behind());
    Append("12\n", ".1");
    fs::last_write_time(Path(".1"), fs::file_time_type::clock::now() + std::chrono::seconds(1));
    Append("1234\n");
    EXPECT_EQ(14u, behind());
    Feed();
    EXPECT_EQ(0u, behind());
    Append("12345\n");
    CopyAndTruncate();
    Append("1\n");
    EXPECT_EQ(8u, behind());
}

TEST_F(FEEDING, ALongBacklogSaysHowFarItIs) {
    options.progressSeconds = 0;
    Append(Logoff("a") + Logoff("b"));
    testing::internal::CaptureStderr();
    Feed();
    EXPECT_EQ("keldwickctl: 2 lines so far, 0 MiB to go\n", testing::internal::GetCapturedStderr());
}

// A process that looks like this machine root's agent. Its descriptor of the log is the test's: the position they share
// is the agent's mark.
class AGENT_ALIKE {
public:
    explicit AGENT_ALIKE(const TEMPORARY_ROOT& root) : log(open(root.Path("eventlog/Security.evt").c_str(), O_RDONLY)) {
        const std::string program = root.Path("keldwick");
        fs::copy_file("/bin/sleep", program, fs::copy_options::skip_existing);
        char name[] = "keldwick", seconds[] = "600";
        char* const arguments[] = {name, seconds, nullptr};
        EXPECT_EQ(0, posix_spawn(&pid, program.c_str(), nullptr, nullptr, arguments, environ));
        // It returns a moment before the process has its new name.
        for (std::string comm; comm != "keldwick"; std::this_thread::yield())
            std::ifstream("/proc/" + std::to_string(pid) + "/comm") >> comm;
    }
    ~AGENT_ALIKE() {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
        close(log);
    }
    AGENT_ALIKE(const AGENT_ALIKE&) = delete;
    AGENT_ALIKE& operator=(const AGENT_ALIKE&) = delete;
    void Mark(DWORD number) const { lseek(log, number, SEEK_SET); }

private:
    const int log;
    pid_t pid = 0;
};

TEST_F(FEEDING, AnAgentIsWaitedForUntilItFollowsAndIsNear) {
    LOG log("Security");
    win32::NEW_EVENT event;
    event.strings = {std::u16string(25000, u'x')};
    std::string reason;
    while (log.UnreadShare(1) <= 0.5) ASSERT_TRUE(log.Take(event, reason) && log.Flush());
    CONSOLE console(30, true);
    AGENT_WAIT agent(console), impatient(console, std::chrono::seconds(0));
    const auto wait = [&](AGENT_WAIT& each) {
        const char* const why = each.ReasonToWait(log);
        return std::string(why == nullptr ? "" : why);
    };
    EXPECT_EQ("", wait(agent)) << "none was seen";
    root.Write("Keldwick.identities", "{}");
    AGENT_WAIT later(console);
    EXPECT_EQ("does not run", wait(later)) << "one was there a moment ago";
    fs::last_write_time(root.Path("Keldwick.identities"), fs::file_time_type::clock::now() - std::chrono::minutes(6));
    AGENT_WAIT muchLater(console);
    EXPECT_EQ("", wait(muchLater));
    for (int run = 0; run < 2; ++run) {
        const AGENT_ALIKE running(root);
        EXPECT_EQ("does not follow the log", wait(agent));
        EXPECT_EQ("does not follow the log", wait(impatient));
        running.Mark(1);
        EXPECT_EQ("has more than half of the log to read", wait(agent));
        running.Mark(log.NextRecord());
        EXPECT_EQ("", wait(agent));
    }
    EXPECT_EQ("does not run", wait(agent));
    EXPECT_EQ("does not run", wait(agent));
    EXPECT_EQ("", wait(impatient));
}

TEST_F(FEEDING, WhatIsNotInTheLogDoesNotEndTheRecognitionOfWhatIs) {
    std::string reason;
    const auto write = [&](LOG& log, const char16_t* user) {
        win32::NEW_EVENT event;
        event.strings = {user};
        return log.Take(event, reason) && log.Flush();
    };
    LOG before("Security"), after("Security");
    for (const char16_t* user : {u"a", u"b", u"c"}) ASSERT_TRUE(write(before, user));
    after.RecogniseFrom(1);
    for (const char16_t* user : {u"new", u"a", u"b", u"c"}) ASSERT_TRUE(write(after, user));
    EXPECT_EQ((LINES{"a", "b", "c", "new"}), Users());
    EXPECT_FALSE(after.IsRecognising());
    after.RecogniseFrom(1);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(write(after, u"another"));
    EXPECT_FALSE(after.IsRecognising()) << "all that was written must have come";
}

TEST_F(FEEDING, ALogsSizeIsTheSettingsWhenItIsWritten) {
    LOG log("Security");
    const DWORD size = 65536;
    HKEY key = nullptr;
    ASSERT_EQ(ERROR_SUCCESS,
              RegCreateKeyExW(HKEY_LOCAL_MACHINE, u"SYSTEM\\CurrentControlSet\\services\\EventLog\\Security", 0,
                              nullptr, 0, KEY_ALL_ACCESS, nullptr, &key, nullptr));
    ASSERT_EQ(ERROR_SUCCESS, RegSetValueExW(key, u"MaxSize", 0, REG_DWORD, reinterpret_cast<const BYTE*>(&size), 4));
    RegCloseKey(key);
    win32::NEW_EVENT event;
    event.strings = {std::u16string(5000, u'x')};
    std::string reason;
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(log.Take(event, reason) && log.Flush());
    EXPECT_LE(fs::file_size(root.Path("eventlog/Security.evt")), size);
}

TEST_F(FEEDING, ABatchThatDidNotFitTheDiskIsWrittenOnceWhenItFits) {
    LOG log("Security");
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
}  // namespace tools::feed
