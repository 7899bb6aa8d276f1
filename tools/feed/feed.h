// A feed: brings what a running source writes into an event log, once and in order, whatever happens to it meanwhile.
//
// Terms, each for one thing everywhere:
//   place     how far one file was read: after its last whole line
//   position  the places of all files that are followed
//   mark      a position on the disk, where the next run goes on
//   tail      a fingerprint of the bytes before a place: is it still the same content?
//   behind    bytes of the followed files that were not read yet
//   batch     records on their way into the log, which gets them together
//   hold      what the batch waits for; meanwhile nothing is read
//
// Who calls whom, in which order, all on the one thread:
//   FollowFile, ReadLines, ReadEventXml -> FEED::Run -> Step, then Wait, again and again until Step says it is the end
//   Step -> INPUT::Read -> (FOLLOWER -> FOLLOWED_FILE ->) LINES or EVENT_XML_STREAM -> INTAKE -> LINE_READER, LOG::Take
//   Step -> Flush, when the batch is full, the input pauses or a mark is due: MARKS, then AGENT_WAIT, then LOG::Flush;
//           each may set `hold` and `due`, and then Step does nothing but Flush when it is due
//   Step -> MARKS::Mark, when a mark is due and the batch is in the log
//   Wait  the one wait: for a stop, for the input's descriptor, and until what is due first of hold, input and mark
#pragma once

#include <chrono>
#include <string>

#include "tools/feed/agent_wait.h"
#include "tools/feed/console.h"
#include "tools/feed/intake.h"
#include "tools/feed/log.h"
#include "tools/feed/marks.h"

namespace tools::feed {

struct OPTIONS {
    std::string source, file, log = "Security", name;  // file: absolute, empty for standard input
    bool once = false;                                 // ends when it has read what is there
    bool dryRun = false;                               // not the feed's business: nothing is fed
    int progressSeconds = 30;  // of a backlog without a pause, between two lines that say how far it is
};

// Each runs one feed until its source ends or a stop signal comes. Records are in the log before a pause of the input
// is waited out. All throw COMMAND_ERROR for what ends a feed.
void FollowFile(const OPTIONS& options, LINE_READER& reader);
void ReadLines(const OPTIONS& options, LINE_READER& reader);  // of standard input
void ReadEventXml(const OPTIONS& options);                    // of standard input

// What the batch waits for, in the order in which it passes them.
enum class HOLD { NONE, MARK, AGENT, DISK };

class FEED {
public:
    // Opens the log and takes the feed's name. `reader`: of the lines, null for event XML.
    FEED(const OPTIONS& given, LINE_READER* reader);

    void Run(INPUT& input);

    const MARKS& Marks() const { return marks; }
    INTAKE& Intake() { return intake; }
    CONSOLE& Console() { return console; }

private:
    using CLOCK = std::chrono::steady_clock;
    enum class NEXT { AT_ONCE, WHEN_DUE, END };

    NEXT Step(INPUT& input, bool ready);
    bool Wait(const INPUT& input, NEXT next);
    bool Flush();
    bool HoldFor(HOLD why, CLOCK::duration pause);
    void Leave();
    void CheckReadable();
    void Mark(const INPUT& input);
    bool IsMarkDue() const { return marks.Due() <= CLOCK::now(); }
    bool IsLast() const { return options.once || stopped; }  // no later attempt will come

    const OPTIONS& options;
    const STOP_SIGNALS signals;
    CONSOLE console;
    STATE_FILE files;
    LOG log;
    MARKS marks;
    AGENT_WAIT agent;
    INTAKE intake;
    TROUBLE disk;
    HOLD hold = HOLD::NONE;
    CLOCK::time_point due;  // when what holds the batch is asked again
    bool stopped = false;   // a stop signal came
    bool left = false;      // what was read is left to the next run
};

}  // namespace tools::feed
