#include "tools/keldwickctl/feed_run.h"

#include <poll.h>
#include <signal.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <functional>
#include <optional>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/event_sink.h"
#include "tools/keldwickctl/event_xml_import.h"
#include "tools/keldwickctl/failure.h"
#include "tools/keldwickctl/feed_agent.h"
#include "tools/keldwickctl/feed_aside.h"
#include "tools/keldwickctl/feed_follower.h"
#include "tools/keldwickctl/feed_log.h"
#include "tools/keldwickctl/feed_state.h"

namespace {

using CLOCK = std::chrono::steady_clock;
constexpr int MarkMilliseconds = 1000;  // between two marks of the place
constexpr int RetryMilliseconds = 1000;
constexpr int LookMilliseconds = 1000;  // a file system that gives no notice is looked at this often
constexpr int LookUnnoticedMilliseconds = 200;
constexpr int LookAtAgentMilliseconds = 200;
constexpr int ToldWaitMilliseconds = 1000;  // a shorter wait for the agent is not worth a word
constexpr size_t MostDrained = 1024 * 1024;
constexpr unsigned long long LinesPerProgress = 10000;

// SIGTERM and SIGINT as a descriptor that becomes readable and stays so.
class STOP_SIGNALS {
public:
    STOP_SIGNALS() {
        sigset_t signals;
        sigemptyset(&signals);
        sigaddset(&signals, SIGTERM);
        sigaddset(&signals, SIGINT);
        sigprocmask(SIG_BLOCK, &signals, &before);
        fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
        if (fd < 0) throw COMMAND_ERROR(std::string("cannot wait for signals: ") + std::strerror(errno));
    }
    ~STOP_SIGNALS() {
        signalfd_siginfo taken;
        while (read(fd, &taken, sizeof taken) > 0) {  // or it would end the process once it is let through
        }
        close(fd);
        sigprocmask(SIG_SETMASK, &before, nullptr);
    }
    STOP_SIGNALS(const STOP_SIGNALS&) = delete;
    STOP_SIGNALS& operator=(const STOP_SIGNALS&) = delete;

    // Waits for a stop, input on `input` (-1: none) or the time. True: stop.
    bool Wait(int input, int milliseconds, bool* ready = nullptr) const {
        std::array<pollfd, 2> both = {{{fd, POLLIN, 0}, {input, POLLIN, 0}}};
        const int got = poll(both.data(), both.size(), milliseconds);
        if (ready != nullptr) *ready = got > 0 && both[1].revents != 0;
        return got > 0 && both[0].revents != 0;
    }

private:
    sigset_t before;
    int fd = -1;
};

// What all feeds have: the log, the state, what is kept aside, progress and the count at the end.
class FEED : public FEED_LINE_TAKER, public EVENT_SINK {
public:
    FEED(const FEED_OPTIONS& given, FEED_LINE_READER* lineReader)
        : options(given),
          reader(lineReader),
          files(NameOf(given), given.file.empty() ? FEED_KIND::STREAM : FEED_KIND::FOLLOWER),
          log(given.log),
          aside(given.name) {
        std::string damage;
        files.Load(state, damage);
        if (!damage.empty()) Tell(damage);
        if (!state.file.empty() && state.file != options.file) RefuseName("follows " + state.file);
        if (!state.log.empty() && state.log != options.log) RefuseName("writes to the " + state.log + " log");
        // A stream has no place to go back to: what comes is new, though it look the same. A file that was not there
        // yet at the last mark has a place all the same, its beginning.
        isNew = options.file.empty() || state.file != options.file;
        if (!isNew) log.RecogniseFrom(state.nextRecord);
        state.source = options.source;
        state.file = options.file;
        state.log = options.log;
        terminal = isatty(STDERR_FILENO) == 1;
    }

    void TakeLine(std::string_view line) override {
        std::string reason;
        switch (reader->Read(line, event, reason)) {
            case FEED_LINE_READER::RECORD:
                Put(line);
                break;
            case FEED_LINE_READER::SKIPPED:
                ++counts.skipped;
                break;
            case FEED_LINE_READER::UNREADABLE:
                SetAside(reason, line);
                break;
        }
        CountLine();
    }
    void TakeTooLong(std::string_view beginning) override {
        SetAside("longer than 1 MiB, its beginning", beginning);
        CountLine();
    }

    // Of event XML. The importer has no lines: an event that cannot be read is kept aside as what was wrong with it.
    void Take(const win32::NEW_EVENT& taken) override {
        event = taken;
        Put({});
        CountLine();
    }
    void TakeRecord(const EVENTLOGRECORD&) override {}  // never from XML
    void Unreadable(const std::string& what) override {
        SetAside(what, {});
        CountLine();
    }

    // Waits out a full disk, unless the feed is to end soon.
    void Flush() {
        AwaitAgent();
        bool told = false;
        while (!log.Flush()) {
            const DWORD error = GetLastError();
            if (options.once || stopped) FailCommand("cannot write to the " + options.log + " log", error);
            if (!told)
                Tell("cannot write to the " + options.log + " log, trying again: error " + std::to_string(error));
            told = true;
            Pause(RetryMilliseconds);
        }
        if (told) Tell("the " + options.log + " log can be written again");
    }

    // Waits while an agent would miss what is written now. The lines lie safe in their file meanwhile, a stream's
    // sender waits. An agent that does not run will not read what is written now, whatever a feed does.
    void AwaitAgent() {
        if (options.once || log.Empty() || !log.IsAgents()) return;
        const auto begun = CLOCK::now();
        const bool due = begun - looked >= std::chrono::milliseconds(LookAtAgentMilliseconds);
        if (!due && !log.IsLookDue() && !agent.HasGone()) return;
        bool told = false;
        while (!stopped) {
            const char* const reason = agent.ReasonToWait(log);
            looked = CLOCK::now();
            log.NoteLook();
            if (reason == nullptr) break;
            if (!told && looked - begun >= std::chrono::milliseconds(ToldWaitMilliseconds)) {
                Tell(std::string("waiting for the agent, which ") + reason);
                told = true;
            }
            Pause(LookAtAgentMilliseconds);
        }
        if (told) Tell("the wait for the agent is over");
    }

    // What is done again and again while Flush waits.
    void WhileWaiting(std::function<void()> act) { whileWaiting = std::move(act); }

    // Marks the place: everything up to it is in the log. Not while records are recognised: those of lines behind the
    // place are in the log, too, before the record from which the next start would look for them.
    void Mark(std::vector<FEED_PLACE> places, unsigned long long behind) {
        if (log.IsRecognising()) return;
        const bool synced = log.Sync();
        std::string why = synced ? "" : "cannot bring the " + options.log + " log to the disk: " + std::strerror(errno);
        state.nextRecord = log.NextRecord();
        state.places = std::move(places);
        state.behind = behind;
        markDue = false;
        marked = CLOCK::now();
        if (synced && Save()) {
            troubled = false;
            return;
        }
        if (synced) why = "cannot write " + files.Path("state") + ": " + std::strerror(errno);
        if (options.once || stopped) throw COMMAND_ERROR(why);
        if (!troubled) Tell(why + ", trying again");
        troubled = true;
        markDue = true;
    }
    int MillisecondsToMark() const {
        if (log.IsMarkPressing()) return 0;
        const auto passed = std::chrono::duration_cast<std::chrono::milliseconds>(CLOCK::now() - marked).count();
        return passed >= MarkMilliseconds ? 0 : static_cast<int>(MarkMilliseconds - passed);
    }

    void Finish() {
        if (shown) std::fputs("\r\033[K", stderr);
        std::printf("%llu records written to the %s log, %llu skipped, %llu unreadable.\n", counts.records,
                    options.log.c_str(), counts.skipped, counts.unreadable);
    }

    void ShowProgress(unsigned long long behind) {
        if (!terminal) return TellProgress(behind);
        if (lines < nextProgress) return;
        nextProgress = lines + LinesPerProgress;
        std::fprintf(stderr, "\r\033[K%llu lines, %llu MiB to go ...", lines, behind / (1024 * 1024));
        shown = true;
    }

    // The input pauses: what comes next is no backlog of what came before.
    void NotePause() { progressTold = CLOCK::now(); }

    void Tell(const std::string& what) {
        if (shown) std::fputs("\r\033[K", stderr);
        shown = false;
        std::fprintf(stderr, "keldwickctl: %s\n", what.c_str());
    }

    void EndRecognition() { log.EndRecognition(); }
    bool IsNew() const { return isNew; }
    // Places may change without a line: a file that is let go, one that was truncated.
    void NotePlaces(const std::vector<FEED_PLACE>& places) { markDue = markDue || places != state.places; }
    bool IsMarkDue() const { return markDue; }
    const std::vector<FEED_PLACE>& Places() const { return state.places; }

    // Waits for a stop signal, for input, or for the time. Whether there is input.
    bool Wait(int input, int milliseconds) {
        bool ready = false;
        stopped = signals.Wait(input, milliseconds, &ready) || stopped;
        return ready;
    }
    bool Stopped() const { return stopped; }

private:
    // Asks for the log before anything is made: what is no machine root gets no folder.
    static const std::string& NameOf(const FEED_OPTIONS& given) {
        LogPath(given.log);
        return given.name;
    }
    [[noreturn]] void RefuseName(const std::string& why) const {
        throw COMMAND_ERROR("the feed " + options.name + " " + why + "; --name gives this one its own name");
    }
    bool Save() {
        FEED_COUNTS added = {counts.records - saved.records, counts.skipped - saved.skipped,
                             counts.unreadable - saved.unreadable};
        const bool done = files.Save(state, added);
        saved = {counts.records - added.records, counts.skipped - added.skipped, counts.unreadable - added.unreadable};
        return done;
    }
    void Pause(int milliseconds) {
        for (int left = milliseconds; left > 0 && !stopped; left -= LookUnnoticedMilliseconds) {
            if (whileWaiting) whileWaiting();
            stopped = signals.Wait(-1, std::min(left, LookUnnoticedMilliseconds));
        }
    }
    void TellProgress(unsigned long long behind) {
        if (CLOCK::now() - progressTold < std::chrono::seconds(options.progressSeconds)) return;
        const std::string left =
            options.file.empty() ? "" : ", " + std::to_string(behind / (1024 * 1024)) + " MiB to go";
        Tell(std::to_string(lines) + " lines so far" + left);
        progressTold = CLOCK::now();
    }
    void Put(std::string_view line) {
        std::string reason;
        if (!log.Take(event, reason)) return SetAside(reason, line);
        ++counts.records;
        if (log.Full()) Flush();
    }
    void SetAside(const std::string& reason, std::string_view line) {
        ++counts.unreadable;
        aside.Keep(reason, line);
    }
    void CountLine() {
        ++lines;
        markDue = true;
    }

    const FEED_OPTIONS& options;
    FEED_LINE_READER* const reader;
    STOP_SIGNALS signals;
    FEED_STATE_FILE files;
    FEED_LOG log;
    FEED_AGENT agent;
    std::function<void()> whileWaiting;
    FEED_ASIDE aside;
    FEED_STATE state;
    win32::NEW_EVENT event;
    FEED_COUNTS counts, saved;  // of this run; what of it the state holds
    unsigned long long lines = 0, nextProgress = LinesPerProgress;
    CLOCK::time_point marked, looked;               // at the agent
    CLOCK::time_point progressTold = CLOCK::now();  // how far a backlog is, or that there was none
    bool stopped = false;                           // a stop signal came
    bool isNew = true;                              // no earlier run has marked a place in this file
    bool markDue = false;                           // something was taken since the last mark
    bool troubled = false;                          // the last mark could not be written
    bool terminal = false, shown = false;
};

// Lets a reader see again what it must remember, and drops what it makes of it.
class REMEMBERING final : public FEED_LINE_TAKER {
public:
    explicit REMEMBERING(FEED_LINE_READER& lineReader) : reader(lineReader) {}
    void TakeLine(std::string_view line) override { reader.Read(line, event, reason); }
    void TakeTooLong(std::string_view) override {}

private:
    FEED_LINE_READER& reader;
    win32::NEW_EVENT event;
    std::string reason;
};

// What standard input has now, once there is something; nothing: its end.
std::optional<std::string_view> ReadChunk(std::array<char, 64 * 1024>& chunk) {
    const ssize_t got = read(STDIN_FILENO, chunk.data(), chunk.size());
    if (got == 0) return std::nullopt;
    if (got < 0 && errno != EINTR && errno != EAGAIN)
        throw COMMAND_ERROR(std::string("cannot read standard input: ") + std::strerror(errno));
    return std::string_view(chunk.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

// Standard input until its end, or a stop and what it holds then; `take` gets the bytes, `finish` the end.
void ReadStandardInput(FEED& feed, const std::function<void(std::string_view)>& take,
                       const std::function<void()>& finish) {
    std::array<char, 64 * 1024> chunk;
    size_t drained = 0;
    for (;;) {
        bool ready = feed.Wait(STDIN_FILENO, 0);
        if (!ready && !feed.Stopped()) {  // the input pauses
            feed.Flush();
            feed.NotePause();
            if (feed.IsMarkDue() && feed.MillisecondsToMark() == 0) feed.Mark({}, 0);
            ready = feed.Wait(STDIN_FILENO, feed.IsMarkDue() ? feed.MillisecondsToMark() : -1);
        }
        if (feed.Stopped() && (!ready || drained >= MostDrained)) break;
        if (!ready) continue;
        const auto bytes = ReadChunk(chunk);
        if (!bytes) break;
        if (feed.Stopped()) drained += std::max<size_t>(bytes->size(), 1);
        take(*bytes);
        feed.ShowProgress(0);
    }
    finish();
    feed.Flush();
    feed.Mark({}, 0);
    feed.Finish();
}

}  // namespace

void FollowFile(const FEED_OPTIONS& options, FEED_LINE_READER& reader) {
    FEED feed(options, &reader);
    FEED_FOLLOWER follower(options.file);
    feed.WhileWaiting([&] { follower.HoldSuccessors(); });
    if (!follower.Resume(feed.Places()))
        feed.Tell("what was read last is there no more; " + options.file + " is read from its beginning");
    if (follower.Waiting()) {
        if (options.once) throw COMMAND_ERROR("cannot read " + options.file + ": there is no such file");
        feed.Tell("waiting for " + options.file);
    }
    REMEMBERING remembering(reader);
    follower.Remember(reader.Memory(), remembering);
    if (feed.IsNew()) feed.Mark(follower.Places(), follower.Behind());
    while (!feed.Stopped()) {
        if (follower.ReadSome(feed)) {
            if (feed.IsMarkDue() && feed.MillisecondsToMark() == 0) {
                feed.Flush();
                feed.Mark(follower.Places(), follower.Behind());
            }
            feed.ShowProgress(follower.Behind());
            feed.Wait(-1, 0);
            continue;
        }
        feed.Flush();
        feed.NotePause();
        feed.EndRecognition();
        if (options.once) break;
        feed.NotePlaces(follower.Places());
        if (feed.IsMarkDue() && feed.MillisecondsToMark() == 0) feed.Mark(follower.Places(), follower.Behind());
        const int look = follower.Notices() >= 0 ? LookMilliseconds : LookUnnoticedMilliseconds;
        if (feed.Wait(follower.Notices(), feed.IsMarkDue() ? std::min(feed.MillisecondsToMark(), look) : look))
            follower.TakeNotices();
    }
    feed.Flush();
    feed.Mark(follower.Places(), follower.Behind());
    feed.Finish();
}

void ReadLines(const FEED_OPTIONS& options, FEED_LINE_READER& reader) {
    FEED feed(options, &reader);
    FEED_LINES lines;
    ReadStandardInput(
        feed, [&](std::string_view bytes) { lines.Feed(bytes, feed); }, [&] { lines.Finish(feed); });
}

void ReadEventXml(const FEED_OPTIONS& options) {
    FEED feed(options, nullptr);
    EVENT_XML_IMPORT import(feed);
    ReadStandardInput(
        feed, [&](std::string_view bytes) { import.Feed(bytes.data(), bytes.size()); }, [&] { import.Finish(); });
}
