// A feed whatever its source: its log, its place and counts, what it keeps aside, what it says, and its stop.
#pragma once

#include <chrono>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "tools/keldwickctl/event_sink.h"
#include "tools/keldwickctl/feed_agent.h"
#include "tools/keldwickctl/feed_aside.h"
#include "tools/keldwickctl/feed_line_reader.h"
#include "tools/keldwickctl/feed_lines.h"
#include "tools/keldwickctl/feed_log.h"
#include "tools/keldwickctl/feed_progress.h"
#include "tools/keldwickctl/feed_run.h"
#include "tools/keldwickctl/feed_state.h"
#include "tools/keldwickctl/stop_signals.h"

// All that may fail throws COMMAND_ERROR.
class FEED : public FEED_LINE_TAKER, public EVENT_SINK {
public:
    // Takes the feed's name and opens its log. `lineReader`: of the lines, null for event XML.
    FEED(const FEED_OPTIONS& given, FEED_LINE_READER* lineReader);

    void TakeLine(std::string_view line) override;
    void TakeTooLong(std::string_view beginning) override;

    // Of event XML. The importer has no lines: an event that cannot be read is kept aside as what was wrong with it.
    void Take(const win32::NEW_EVENT& taken) override;
    void TakeRecord(const EVENTLOGRECORD&) override {}  // never from XML
    void Unreadable(const std::string& what) override;

    // Brings what was taken into the log. Waits for the agent, and out a full disk unless the feed is to end soon. When
    // a stop ends the wait, what a followed file holds is left for the next feed; a stream has nobody else to keep it.
    void Flush();

    // What is done again and again while Flush waits.
    void WhileWaiting(std::function<void()> act) { whileWaiting = std::move(act); }

    // Marks the place: everything up to it is in the log. Not while records are recognised: those of lines behind the
    // place are in the log, too, before the record from which the next start would look for them.
    void Mark(const FEED_POSITION& position, unsigned long long behind);
    int MillisecondsToMark() const;
    bool IsMarkDue() const { return markDue; }
    // Places may change without a line: a file that is let go, one that was truncated.
    void NotePlaces(const FEED_POSITION& position) { markDue = markDue || position.places != state.places; }
    const FEED_POSITION& Position() const { return state; }

    bool IsNew() const { return isNew; }  // no earlier run has marked a place in this file
    void EndRecognition() { log.EndRecognition(); }

    void Tell(const std::string& what) { progress.Tell(what); }
    void ShowProgress(unsigned long long behind) { progress.Show(lines, behind); }
    void NotePause() { progress.NotePause(); }
    void Finish();  // says on standard output what was done

    // Waits for a stop signal, for input, or for the time. Whether there is input.
    bool Wait(int input, int milliseconds);
    bool Stopped() const { return stopped; }

private:
    using CLOCK = std::chrono::steady_clock;

    [[noreturn]] void RefuseName(const std::string& why) const;
    void AwaitMark();
    bool AwaitAgent();
    void LeaveRest();
    void SaveMark();
    bool IsAgentDue() const;
    bool Save();
    void NoteMarkTrouble(const std::string& why);
    void Pause(int milliseconds);
    void Put(std::string_view line);
    void SetAside(const std::string& reason, std::string_view line);
    void CountLine();

    const FEED_OPTIONS& options;
    FEED_LINE_READER* const reader;
    STOP_SIGNALS signals;
    FEED_STATE_FILE files;
    FEED_LOG log;
    FEED_AGENT agent;
    FEED_ASIDE aside;
    FEED_PROGRESS progress;
    std::function<void()> whileWaiting;
    FEED_STATE state;
    win32::NEW_EVENT event;
    FEED_COUNTS counts, saved;  // of this run; what of it the state holds
    unsigned long long lines = 0;
    CLOCK::time_point marked, looked;  // at the agent
    bool stopped = false;              // a stop signal came
    bool leaving = false;              // what is read now is left to the next feed
    bool isNew = true;
    bool markDue = false;   // something was taken since the last mark
    bool troubled = false;  // the last mark could not be written
};
