#include "tools/keldwickctl/feed.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/failure.h"

namespace {

using std::chrono::milliseconds;

constexpr int MarkMilliseconds = 1000;  // between two marks of the place
constexpr int RetryMilliseconds = 1000;
constexpr int LookAtAgentMilliseconds = 200;
constexpr int ToldWaitMilliseconds = 1000;  // a shorter wait for the agent is not worth a word
constexpr int WhileWaitingMilliseconds = 200;

// Asks for the log before anything is made: what is no machine root gets no folder.
const std::string& NameOf(const FEED_OPTIONS& given) {
    LogPath(given.log);
    return given.name;
}

}  // namespace

FEED::FEED(const FEED_OPTIONS& given, FEED_LINE_READER* lineReader)
    : options(given),
      reader(lineReader),
      files(NameOf(given), given.file.empty() ? FEED_KIND::STREAM : FEED_KIND::FOLLOWER),
      log(given.log),
      aside(given.name),
      progress(given.progressSeconds, !given.file.empty()) {
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
}

void FEED::RefuseName(const std::string& why) const {
    throw COMMAND_ERROR("the feed " + options.name + " " + why + "; --name gives this one its own name");
}

void FEED::TakeLine(std::string_view line) {
    if (leaving) return;
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

void FEED::TakeTooLong(std::string_view beginning) {
    if (leaving) return;
    SetAside("longer than 1 MiB, its beginning", beginning);
    CountLine();
}

void FEED::Take(const win32::NEW_EVENT& taken) {
    event = taken;
    Put({});
    CountLine();
}

void FEED::Unreadable(const std::string& what) {
    SetAside(what, {});
    CountLine();
}

void FEED::Put(std::string_view line) {
    std::string reason;
    if (!log.Take(event, reason)) return SetAside(reason, line);
    ++counts.records;
    if (log.Full()) Flush();
}

void FEED::SetAside(const std::string& reason, std::string_view line) {
    ++counts.unreadable;
    aside.Keep(reason, line);
}

void FEED::CountLine() {
    ++lines;
    markDue = true;
}

void FEED::Flush() {
    AwaitMark();
    if (!AwaitAgent() && !options.file.empty()) return LeaveRest();
    bool told = false;
    while (!log.Flush()) {
        const DWORD error = GetLastError();
        if (options.once || stopped) FailCommand("cannot write to the " + options.log + " log", error);
        if (!told) Tell("cannot write to the " + options.log + " log, trying again: " + FailureText(error));
        told = true;
        Pause(RetryMilliseconds);
    }
    if (told) Tell("the " + options.log + " log can be written again");
}

// While a file's place cannot be marked no more is written than could be recognised.
void FEED::AwaitMark() {
    const auto waits = [&] { return troubled && log.IsMarkPressing() && !log.Empty() && !options.file.empty(); };
    if (!waits()) return;
    Tell("nothing more is written until the feed's place can be marked");
    while (waits()) {
        Pause(RetryMilliseconds);
        SaveMark();
    }
}

// Waits while an agent would miss what is written now. The lines lie safe in their file meanwhile, a stream's sender
// waits. An agent that does not run will not read what is written now, whatever a feed does. False: a stop ends the
// wait.
bool FEED::AwaitAgent() {
    if (!IsAgentDue()) return true;
    const auto begun = CLOCK::now();
    bool told = false;
    for (;;) {
        const char* const reason = agent.ReasonToWait(log);
        looked = CLOCK::now();
        log.NoteLook();
        if (reason == nullptr) {
            if (told) Tell("the wait for the agent is over");
            return true;
        }
        if (stopped) return false;
        if (!told && looked - begun >= milliseconds(ToldWaitMilliseconds)) {
            Tell(std::string("waiting for the agent, which ") + reason);
            told = true;
        }
        Pause(LookAtAgentMilliseconds);
    }
}

// The counts are as they were marked, since the next feed counts from there.
void FEED::LeaveRest() {
    log.Drop();
    counts = saved;
    leaving = true;
}

bool FEED::IsAgentDue() const {
    if (options.once || log.Empty() || !log.IsAgents()) return false;
    return CLOCK::now() - looked >= milliseconds(LookAtAgentMilliseconds) || log.IsLookDue() || agent.HasChanged();
}

void FEED::Mark(const FEED_POSITION& position, unsigned long long behind) {
    if (leaving || log.IsRecognising()) return;
    state.nextRecord = log.NextRecord();
    static_cast<FEED_POSITION&>(state) = position;
    state.behind = behind;
    log.NotePlace();
    SaveMark();
}

void FEED::SaveMark() {
    markDue = false;
    marked = CLOCK::now();
    if (!log.Sync())
        return NoteMarkTrouble("cannot bring the " + options.log + " log to the disk: " + std::strerror(errno));
    if (!Save()) return NoteMarkTrouble("cannot write " + files.Path("state") + ": " + std::strerror(errno));
    log.NoteMarked();
    if (troubled) Tell("the feed's place can be marked again");
    troubled = false;
}

void FEED::NoteMarkTrouble(const std::string& why) {
    if (options.once || stopped) throw COMMAND_ERROR(why);
    if (!troubled) Tell(why + ", trying again");
    troubled = true;
    markDue = true;
}

int FEED::MillisecondsToMark() const {
    if (log.IsMarkPressing()) return 0;
    const auto passed = std::chrono::duration_cast<milliseconds>(CLOCK::now() - marked).count();
    return passed >= MarkMilliseconds ? 0 : static_cast<int>(MarkMilliseconds - passed);
}

bool FEED::Save() {
    FEED_COUNTS added = {counts.records - saved.records, counts.skipped - saved.skipped,
                         counts.unreadable - saved.unreadable};
    const bool done = files.Save(state, added);
    saved = {counts.records - added.records, counts.skipped - added.skipped, counts.unreadable - added.unreadable};
    return done;
}

void FEED::Finish() {
    progress.Clear();
    std::printf("%llu records written to the %s log, %llu skipped, %llu unreadable.\n", counts.records,
                options.log.c_str(), counts.skipped, counts.unreadable);
}

bool FEED::Wait(int input, int milliseconds) {
    bool ready = false;
    stopped = signals.Wait(input, milliseconds, &ready) || stopped;
    return ready;
}

void FEED::Pause(int milliseconds) {
    for (int left = milliseconds; left > 0 && !stopped; left -= WhileWaitingMilliseconds) {
        if (whileWaiting) whileWaiting();
        stopped = signals.Wait(-1, std::min(left, WhileWaitingMilliseconds));
    }
}
