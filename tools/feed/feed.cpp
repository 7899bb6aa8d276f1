#include "tools/feed/feed.h"

#include <algorithm>
#include <cstdio>
#include <utility>

#include "tools/common/event_logs.h"
#include "tools/common/failure.h"

namespace tools::feed {
namespace {

constexpr std::chrono::milliseconds DiskPause{1000};      // between two attempts to write
constexpr std::chrono::milliseconds SuccessorPause{200};  // between two looks for new files while the batch is held

// Asks for the log before anything is made: what is no machine root gets no folder.
const std::string& NameOf(const OPTIONS& given) {
    LogPath(given.log);
    return given.name;
}

}  // namespace

FEED::FEED(const OPTIONS& given, LINE_READER* reader)
    : options(given),
      console(given.progressSeconds, !given.file.empty()),
      files(NameOf(given), given.file.empty() ? KIND::STREAM : KIND::FOLLOWER),
      log(given.log),
      marks(given, files, log, console),
      agent(console),
      intake(given.name, reader, log),
      disk(console, "the " + given.log + " log can be written again") {}

void FEED::Run(INPUT& input) {
    if (input.HasPlaces() && marks.IsNew()) Mark(input);
    bool ready = false;
    for (NEXT next; (next = Step(input, ready)) != NEXT::END;) ready = Wait(input, next);
    console.Clear();
    const COUNTS& counts = intake.Counts();
    std::printf("%llu records written to the %s log, %llu skipped, %llu unreadable.\n", counts.records,
                options.log.c_str(), counts.skipped, counts.unreadable);
    input.Check();
    if (options.once) CheckReadable();
}

// For one who tries a source: what is wrong with it.
void FEED::CheckReadable() {
    const COUNTS& counts = intake.Counts();
    if (counts.unreadable == 0) return;
    const std::string what =
        "could be read; the first: " + intake.FirstFault() + ". They are kept in " + files.Path("aside");
    if (counts.records + counts.skipped == 0) {
        std::fflush(stdout);
        throw COMMAND_ERROR("nothing " + what);
    }
    console.Say("not all " + what);
}

FEED::NEXT FEED::Step(INPUT& input, bool ready) {
    if (left) return NEXT::END;
    if (hold != HOLD::NONE) {
        input.WhileHeld();
        const bool tries = stopped || CLOCK::now() >= due;
        return tries && Flush() ? NEXT::AT_ONCE : NEXT::WHEN_DUE;
    }
    const unsigned long long lines = intake.Lines();
    const INPUT::RESULT read = input.Read(ready, stopped);
    if (intake.Lines() != lines) marks.NoteTaken();
    const bool pauses = read == INPUT::NOTHING || read == INPUT::END;
    const bool mayMark = pauses || (read == INPUT::SOME && input.HasPlaces());
    if (pauses || intake.Full() || (mayMark && IsMarkDue())) {
        if (!Flush()) return NEXT::WHEN_DUE;
        if (pauses && !stopped) {
            console.NotePause();
            log.EndRecognition();  // all that was written before has come again
        }
        if (pauses) marks.NotePosition(input.Position());
        if (read == INPUT::END || (mayMark && IsMarkDue())) Mark(input);
    }
    if (read == INPUT::END) return NEXT::END;
    if (!pauses) console.ShowProgress(intake.Lines(), input.Behind());
    return pauses ? NEXT::WHEN_DUE : NEXT::AT_ONCE;
}

// Whether the input's descriptor is readable.
bool FEED::Wait(const INPUT& input, NEXT next) {
    const bool held = hold != HOLD::NONE;
    CLOCK::time_point until = CLOCK::time_point::min();
    if (next == NEXT::WHEN_DUE && held) until = std::min(due, CLOCK::now() + SuccessorPause);
    if (next == NEXT::WHEN_DUE && !held) until = std::min(input.Due(), marks.Due());
    bool ready = false;
    stopped = signals.Wait(held ? -1 : input.Descriptor(), until, ready) || stopped;
    return ready;
}

// Brings the batch into the log. False: it is held, and asks what held it again when that is due. A stop ends each
// hold: what waits for the agent is left in a followed file for the next run, and of a stream, which keeps nothing, it
// is written.
bool FEED::Flush() {
    const HOLD held = std::exchange(hold, HOLD::NONE);
    if (held <= HOLD::MARK && marks.Holds(IsLast())) return HoldFor(HOLD::MARK, MARKS::Pause);
    if (held <= HOLD::AGENT && !options.once && agent.Holds(log, held == HOLD::AGENT)) {
        if (!stopped) return HoldFor(HOLD::AGENT, AGENT_WAIT::Pause);
        agent.GiveUp();
        if (!options.file.empty()) return Leave(), true;
    }
    if (log.Flush()) return disk.End(), true;
    const DWORD error = GetLastError();
    const std::string what = "cannot write to the " + options.log + " log";
    if (IsLast()) FailCommand(what, error);
    disk.Begin(what + ", trying again: " + FailureText(error));
    return HoldFor(HOLD::DISK, DiskPause);
}

bool FEED::HoldFor(HOLD why, CLOCK::duration pause) {
    hold = why;
    due = CLOCK::now() + pause;
    return false;
}

// The counts are as they were marked, since the next run counts from there.
void FEED::Leave() {
    log.Drop();
    intake.SetCounts(marks.Saved());
    left = true;
}

void FEED::Mark(const INPUT& input) {
    if (!left) marks.Mark(input.Position(), input.Behind(), intake.Counts(), IsLast());
}

void FollowFile(const OPTIONS& options, LINE_READER& reader) {
    FEED feed(options, &reader);
    FOLLOWED_INPUT input(options, reader, feed.Marks(), feed.Intake(), feed.Console());
    feed.Run(input);
}

void ReadLines(const OPTIONS& options, LINE_READER& reader) {
    FEED feed(options, &reader);
    LINE_INPUT input(feed.Intake());
    feed.Run(input);
}

void ReadEventXml(const OPTIONS& options) {
    FEED feed(options, nullptr);
    XML_INPUT input(feed.Intake());
    feed.Run(input);
}

}  // namespace tools::feed
