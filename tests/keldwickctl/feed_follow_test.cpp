// That a feed loses nothing and doubles nothing: each way of rotation, truncation, restarts, crashes, full disks.
#include <gmock/gmock.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>
#include <atomic>
#include <thread>

#include <atomic>
#include <random>
#include <thread>

#include "tests/support/registry_text.h"
#include "tests/support/temporary_root.h"
#include "tools/common/event_logs.h"
#include "tools/common/failure.h"
#include "tools/feed/agent_wait.h"
#include "tools/feed/feed.h"
#include "tools/feed/follower.h"
#include "tools/feed/log.h"
#include "tools/feed/state.h"
#include "win32/eventlog/log_names.h"
#include "win32/text/utf.h"

namespace tools::feed {
namespace {

namespace fs = std::filesystem;
using testing::HasSubstr;

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
// of the files, the oldest first. Times of writing are set, a second apart, so that they show the files' order.
class MODEL {
public:
    enum WAY { NUMBERED, DATED, COPIED, COPIED_OVER, WAYS };  // over the copy before

    MODEL(const std::string& file, WAY how) : way(how), path(file) { files.emplace_back(); }

    void Append(const std::string& text, size_t back = 0) {  // to the file, or one rotated so many times
        LOGGED& file = files[files.size() - 1 - back];
        file.made = true;
        file.half += text;
        for (size_t end; (end = file.half.find('\n')) != std::string::npos; file.half.erase(0, end + 1))
            file.lines.push_back(file.half.substr(0, end));
        std::ofstream(NameOf(back), std::ios::binary | std::ios::app) << text;
        Touch(NameOf(back));
    }
    // A line is written last; if the file is renamed within one, after that.
    void Rotate(const std::string& line) {
        const bool endsLate = way < COPIED && !files.back().half.empty();
        if (!endsLate) Append(line);
        for (size_t back = way == NUMBERED || way == COPIED ? files.size() - 1 : 0; back > 0; --back)
            fs::rename(NameOf(back), NameOf(back + 1));
        const std::string rotated = way == DATED ? path + "-" + std::to_string(20260000 + files.size()) : path + ".1";
        if (way >= COPIED) {
            fs::copy_file(path, rotated, fs::copy_options::overwrite_existing);
            Touch(rotated);
            fs::resize_file(path, 0);
            Touch(path);
        } else {
            fs::rename(path, rotated);
        }
        files.emplace_back();
        if (endsLate) Append(line, 1);
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
    bool IsRotatedOneKnown() const { return files.size() > 1 && files[files.size() - 2].known; }

    const WAY way;

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
    std::vector<LOGGED> files;
    fs::file_time_type written = fs::file_time_type::clock::now() - std::chrono::hours(3);
};

class FOLLOWED : public testing::Test {
protected:
    std::string Path(const std::string& suffix = "") const { return root.Path("audit" + suffix); }
    void Append(const std::string& text, const std::string& suffix = "") const {
        std::ofstream(Path(suffix), std::ios::binary | std::ios::app) << text;
    }
    void Move(const std::string& from, const std::string& to) const { fs::rename(Path(from), Path(to)); }
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
    enum STEP { APPEND, APPEND_MORE, HALF, ROTATE, LATE, READ, READ_MORE, MARK, RESTART, CRASH, STEPS };
    for (unsigned seed = 1; seed <= 100; ++seed) {
        SCOPED_TRACE("seed " + std::to_string(seed));
        Clear();
        std::mt19937 random(seed);
        MODEL model(Path(), static_cast<MODEL::WAY>(seed % MODEL::WAYS));
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
                    model.Append(line.substr(0, 4 + line.size() / 8));  // with its number, or it begins like others
                    break;
                case ROTATE:
                    if (model.way == MODEL::COPIED_OVER) {  // what the next copy overwrites must have been read
                        read(std::string::npos);
                        mark();
                    }
                    model.Rotate(line);
                    break;
                case LATE:
                    if (model.way >= MODEL::COPIED || !model.IsRotatedOneKnown()) break;
                    read(std::string::npos);
                    model.Append(line, 1);
                    read(std::string::npos);
                    mark();
                    break;
                case READ:
                case READ_MORE:
                    read(random() % 2 == 0 ? std::string::npos : 1 + random() % 4);
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

TEST_F(FOLLOWED, WhatIsDoneToAFileByHandCostsNoLineAndDoublesNone) {
    const auto add = [&](const std::string& line, const std::string& suffix = "") { Append(line + "\n", suffix); };
    const auto copy = [&](const char* suffix) {
        fs::copy_file(Path(), Path(suffix), fs::copy_options::overwrite_existing);
    };
    const auto truncate = [&] { fs::resize_file(Path(), 0); };
    // What happens to a file of which "one" and "two" were read, and the lines that must come next.
    const struct {
        const char* name;
        std::function<void()> act;
        LINES lines;
        bool found = true;   // the place where a feed was that comes back
        bool ahead = false;  // the clock was when they were written, and was set back
    } cases[] = {
        {"truncated and longer now", [&] { copy(".1"), truncate(), add("longer than both"); }, {"longer than both"}},
        {"truncated", [&] { truncate(), add("x"); }, {"x"}, false},
        {"replaced", [&] { add("new", ".fresh"), Move(".fresh", ""); }, {"new"}, false},
        {"replaced by a copy of itself", [&] { copy("~"), Move("~", ""), add("x"); }, {"x"}},
        {"rewritten at its old length", [&] { truncate(), add("six"), add("ten"); }, {"six", "ten"}, false},
        {"copied, then renamed", [&] { copy(".1"), Move("", ".2"), add("three"); }, {"three"}},
        {"copied and written on, then renamed",
         [&] { copy(".1"), add("three", ".1"), Move("", ".2"), add("four"); },
         {"three", "four"}},
        {"a packed neighbour is not read", [&] { add("rubbish", ".1.gz"), add("three"); }, {"three"}},
        {"another log's files are not read",
         [&] { Move("", ".1"), add("rubbish", "2.1"), add("rubbish", "-bak"), add("three"); },
         {"three"}},
        {"the clock was set back",
         [&] { Move("", ".2"), add("three", ".1"), add("four"); },
         {"three", "four"},
         true,
         true},
        {"the clock was set back, then written on",
         [&] { add("three"), Move("", ".2"), add("four", ".1"), add("five"); },
         {"three", "four", "five"},
         true,
         true},
    };
    for (const auto& c : cases)
        for (const bool away : {false, true}) {
            SCOPED_TRACE(c.name);
            Clear();
            Append("one\ntwo\n");
            fs::last_write_time(Path(), fs::file_time_type::clock::now() + std::chrono::seconds(c.ahead ? 3600 : -1));
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

TEST_F(FOLLOWED, APlaceIsBeforeHalfALineAndAnyLineEndsSomewhere) {
    Append("one\nhal");
    FOLLOWER follower(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(follower));
    EXPECT_EQ(4u, follower.Position().places.back().offset);
    Append("f\n" + std::string(MaxLineBytes, 'm') + "\n" + std::string(3 * MaxLineBytes, 'x') + "\nend\n");
    EXPECT_EQ((LINES{"half", std::string(MaxLineBytes, 'm'), "too long: xxx", "end"}), Read(follower));
}

TEST_F(FOLLOWED, AFileThatMayNotBeReadIsAskedForAgainButNotAtTheStart) {
    const std::shared_ptr<void> asRoot(nullptr, [](void*) { seteuid(getuid()); });  // again at the end
    if (geteuid() == 0 && (chown(root.Path("").c_str(), 65534, 0) != 0 || seteuid(65534) != 0)) FAIL();
    Append("one\n");
    FOLLOWER follower(Path()), another(Path());
    follower.Resume({});
    EXPECT_EQ(LINES{"one"}, Read(follower));
    Move("", ".1");
    Append("two\n");
    fs::permissions(Path(), fs::perms::none);
    EXPECT_EQ(LINES(), Read(follower));
    EXPECT_TRUE(follower.Refused());
    EXPECT_THROW(another.Resume({}), COMMAND_ERROR);
    fs::permissions(Path(), fs::perms::owner_read);
    fs::permissions(Path(".1"), fs::perms::none);
    EXPECT_THROW(another.Resume(follower.Position()), COMMAND_ERROR) << "it is not read from its beginning";
    EXPECT_EQ(LINES{"two"}, Read(follower));
    EXPECT_FALSE(follower.Refused());
}

// Feeds lines through the whole command: a line is a record's only string.
class FEEDING : public FOLLOWED {
protected:
    FEEDING() {
        fs::create_directories(root.Path("eventlog"));
        win32::CreateLogFile(root.Path("eventlog/Security.evt"), 1024 * 1024);
    }
    void Feed() const { FollowFile(options, *std::make_unique<READER>()); }
    static LINES Logged() {
        win32::EVT_READER reader;
        OpenReader(reader, "Security");
        LINES strings;
        EachRecord(reader, true, [&](const EVENTLOGRECORD& record) {
            const auto* const text = reinterpret_cast<const char*>(&record) + record.StringOffset;
            strings.push_back(win32::ToUtf8(reinterpret_cast<const char16_t*>(text)));
            return true;
        });
        return strings;
    }
    static bool Take(LOG& log, const std::u16string& text, const std::u16string& more = {}) {
        win32::NEW_EVENT event;
        std::string reason;
        event.strings = {text, more};
        return log.Take(event, reason);
    }
    static bool Write(LOG& log, const std::u16string& text) { return Take(log, text) && log.Flush(); }
    std::string State() const { return root.Read("feed/test.state"); }

    class READER final : public LINE_READER {
        RESULT Read(std::string_view line, win32::NEW_EVENT& event, std::string&) override {
            event = {};
            event.id = 4634;
            event.strings = {win32::ToUtf16(line)};
            event.written = win32::SecondsNow();
            return RECORD;
        }
    };

    OPTIONS options = {"json", root.Path("audit"), "Security", "test", true};
};

TEST_F(FEEDING, ALogThatIsClearedWhileItIsLookedAtIsOpenedAgain) {
    LOG log("Security");
    constexpr int looks = 3000;
    std::atomic<int> look{0};
    std::thread clearing([&] {  // once during each look, at most
        for (int last = 0; last < looks; last = look) {
            while (look == last) std::this_thread::yield();
            ClearLog("Security");
        }
    });
    while (++look < looks) EXPECT_NO_THROW(log.NextRecord());
    clearing.join();
}

TEST_F(FEEDING, ACrashBetweenWritingAndMarkingNeitherLosesNorDoubles) {
    Append("a\n");
    Feed();
    const std::string marked = State();
    Append("b\nb\nc\n");
    Feed();
    root.Write("feed/test.state", marked);  // written, not marked
    LOG other("Security");                  // another feed goes on meanwhile
    ASSERT_TRUE(Write(other, u"other"));
    Append("d\nb\n");
    Feed();
    EXPECT_EQ((LINES{"a", "b", "b", "c", "other", "d", "b"}), Logged());
    ClearLog("Security");
    Append("e\n");
    Feed();
    Feed();
    EXPECT_EQ(LINES{"e"}, Logged()) << "a log that was cleared meanwhile takes what came";
}

TEST_F(FEEDING, NoPlaceIsMarkedBeforeAllThatIsWrittenHasComeAgain) {
    Append("a\n");
    Feed();
    LOG killed("Security"), log("Security");
    ASSERT_TRUE(Write(killed, u"b") && Write(killed, u"c"));
    const std::string before = State();
    const STATE_FILE files("test");
    CONSOLE console(30, true);
    MARKS marks(options, files, log, console);
    for (const char16_t* again : {u"b", u"c"}) {
        EXPECT_EQ(before, State());
        ASSERT_TRUE(Write(log, again));
        marks.Mark(marks.Position(), 0, {}, true);
    }
    EXPECT_THAT(State(), HasSubstr("\"nextRecord\": 4"));
}

TEST_F(FEEDING, WhatIsKeptAsideIsBoundedAndTheNewestIsThere) {
    fs::create_directory(root.Path("feed"));
    ASIDE aside("kept");
    for (int i = 0; i < 40; ++i) aside.Keep("reason " + std::to_string(i), std::string(100000, 'x'));
    EXPECT_LE(fs::file_size(root.Path("feed/kept.aside")) + fs::file_size(root.Path("feed/kept.aside.old")),
              ASIDE::MaxBytes);
    EXPECT_THAT(root.Read("feed/kept.aside"), HasSubstr("reason 39"));
}

TEST_F(FEEDING, AStateIsReplacedWhateverStandsInItsPlace) {
    STATE_FILE files("test");
    root.Write("victim", "another's");
    fs::create_hard_link(root.Path("victim"), root.Path("feed/test.state.new"));
    root.Write("feed/test.state", "rubbish");
    STATE state;
    state.records = 5;
    COUNTS added = {2, 0, 0};
    ASSERT_TRUE(files.Save(state, added));
    EXPECT_EQ(0u, added.records);
    EXPECT_EQ("another's", root.Read("victim"));
    EXPECT_THAT(State(), HasSubstr("\"records\": 7"));
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

TEST_F(FEEDING, AnAgentThatWasThereAMomentAgoIsWaitedFor) {
    LOG log("Security");
    CONSOLE console(30, true);
    const auto wait = [&](std::chrono::seconds longest) {
        const char* const why = AGENT_WAIT(console, longest).ReasonToWait(log);
        return std::string(why == nullptr ? "" : why);
    };
    EXPECT_EQ("", wait(std::chrono::minutes(5))) << "none was seen";
    root.Write("Keldwick.identities", "{}");
    EXPECT_EQ("does not run", wait(std::chrono::minutes(5)));
    EXPECT_EQ("", wait(std::chrono::seconds(0)));
    fs::last_write_time(root.Path("Keldwick.identities"), fs::file_time_type::clock::now() - std::chrono::minutes(6));
    EXPECT_EQ("", wait(std::chrono::minutes(5)));
}

TEST_F(FEEDING, ANewRecordDoesNotEndTheRecognitionOfOldOnes) {
    LOG before("Security"), after("Security");
    for (const char16_t* user : {u"a", u"b", u"c"}) ASSERT_TRUE(Write(before, user));
    after.RecogniseFrom(1);
    for (const char16_t* user : {u"new", u"a", u"b", u"c"}) ASSERT_TRUE(Write(after, user));
    EXPECT_EQ((LINES{"a", "b", "c", "new"}), Logged());
    EXPECT_FALSE(after.IsRecognising());
    after.RecogniseFrom(1);
    for (int i = 0; i < 100; ++i) ASSERT_TRUE(Write(after, u"another"));
    EXPECT_FALSE(after.IsRecognising()) << "all that was written must have come";
}

TEST_F(FEEDING, ALogKeepsToTheSizeThatItWasGivenMeanwhile) {
    LOG log("Security");
    root.Write("registry.reg",
               RegistryText("HKEY_LOCAL_MACHINE\\SYSTEM\\CurrentControlSet\\services\\EventLog\\Security",
                            "MaxSize=dword:10000"));
    for (int i = 0; i < 20; ++i) ASSERT_TRUE(Take(log, u"a", std::u16string(10000, u'x')) && log.Flush());
    EXPECT_EQ(65536u, fs::file_size(root.Path("eventlog/Security.evt")));
    EXPECT_EQ(1, log.UnreadShare(1)) << "all of it, though that record is gone";
    EXPECT_EQ(0, log.UnreadShare(100)) << "of a log that was cleared since";
}

TEST_F(FEEDING, ABatchThatDidNotFitTheDiskIsWrittenOnceWhenItFits) {
    LOG log("Security");
    for (const char16_t* user : {u"a", u"b", u"c"}) ASSERT_TRUE(Take(log, user, std::u16string(10000, u'x')));
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
    EXPECT_EQ(LINES(), Logged());
    EXPECT_TRUE(log.Flush());
    EXPECT_EQ((LINES{"a", "b", "c"}), Logged());
}

TEST_F(FOLLOWED, AReaderIsShownWhatWasReadBeforeAndNothingElse) {
    Append("long ago\n", ".2");
    Append("one\n", ".1");
    Append("two\n");
    fs::last_write_time(Path(".2"), fs::file_time_type::clock::now() - std::chrono::seconds(2));
    fs::last_write_time(Path(".1"), fs::file_time_type::clock::now() - std::chrono::seconds(1));
    FOLLOWER first(Path()), second(Path());
    first.Resume({});
    EXPECT_EQ(LINES{"two"}, Read(first));
    Append("three\n");
    EXPECT_TRUE(second.Resume(first.Position()));
    COLLECTING remembered;
    second.Remember(6, remembered);
    EXPECT_EQ((LINES{"one", "two"}), remembered.lines);
    EXPECT_EQ(LINES{"three"}, Read(second));
}

}  // namespace
}  // namespace tools::feed
