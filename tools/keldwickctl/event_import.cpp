#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <memory>
#include <optional>
#include <string_view>
#include <thread>

#include "tools/common/event_logs.h"
#include "tools/common/event_xml.h"
#include "tools/common/failure.h"
#include "tools/common/running_agent.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "tools/feed/agent_wait.h"
#include "tools/feed/log.h"
#include "tools/keldwickctl/byte_source.h"
#include "tools/keldwickctl/dry_run.h"
#include "tools/keldwickctl/events.h"
#include "win32/eventlog/log_names.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr DWORD EventsPerProgress = 5000;

// The agent reports what comes after it has begun to follow the log, which is a circle.
class AGENT_PACE {
public:
    explicit AGENT_PACE(const std::string& name) : log(name), agent(console, std::chrono::hours(24 * 365)) {
        agent.Expect();
        FindAgent();  // throws when it may not be looked at
    }

    // Waits while the agent does not follow the log, or has more than half of it to read.
    void Wait() {
        for (feed::TROUBLE waits(console, "the wait for the agent is over");; waits.Begin(reason)) {
            const char* const why = agent.ReasonToWait(log);
            if (why == nullptr) return waits.End();
            reason = std::string("waiting for the agent, which ") + why;
            std::this_thread::sleep_for(feed::AGENT_WAIT::Pause);
        }
    }

private:
    feed::CONSOLE console{30, false};
    feed::LOG log;
    feed::AGENT_WAIT agent;
    std::string reason;
};

// Writes what it is given to a log, counts and names what is unreadable, and shows progress on a terminal.
class LOG_SINK final : public EVENT_SINK {
public:
    LOG_SINK(const std::string& log, bool waitsForAgent) : name(log) {
        OpenWriter(writer, log);
        if (waitsForAgent) pace = std::make_unique<AGENT_PACE>(log);
        if (pace) Await();
        terminal = isatty(STDERR_FILENO) == 1;
    }

    void Take(const win32::NEW_EVENT& event) override {
        if (!win32::BuildRecord(event, record)) return Unreadable("an event too large for a record");
        TakeRecord(*reinterpret_cast<const EVENTLOGRECORD*>(record.data()));
    }

    void TakeRecord(const EVENTLOGRECORD& taken) override {
        if (!writer.Append(taken)) {
            if (GetLastError() == ERROR_LOG_FILE_FULL) return Unreadable("an event larger than the log may be");
            FailCommand("cannot write to the " + name + " log after " + std::to_string(writer.Written()) + " events",
                        GetLastError());
        }
        if (++events % EventsPerProgress == 0) ShowProgress();
        ahead += taken.Length;
        if (pace && ahead >= unseen) Await();
    }

    void Unreadable(const std::string& what) override {
        ClearProgress();
        std::fprintf(stderr, "keldwickctl: not imported: %s\n", SafeText(what).c_str());
        ++unreadable;
    }

    void Finish() {
        Flush();
        ClearProgress();
        std::printf("%lu event%s imported into the %s log.\n", static_cast<unsigned long>(writer.Written()),
                    writer.Written() == 1 ? "" : "s", name.c_str());
        if (unreadable == 0) return;
        std::fflush(stdout);
        throw COMMAND_ERROR(std::to_string(unreadable) + (unreadable == 1 ? " thing" : " things") +
                            " could not be read and " + (unreadable == 1 ? "is" : "are") + " not in the log");
    }

private:
    void Flush() {
        if (!writer.Flush())
            FailCommand("cannot write to the " + name + " log after " + std::to_string(writer.Written()) + " events",
                        GetLastError());
    }
    void Await() {
        Flush();
        ClearProgress();
        pace->Wait();
        ahead = 0;
        unseen = win32::LogMaxSize(win32::ToUtf16(name)) / 8;
    }
    void ShowProgress() {
        if (!terminal) return;
        std::fprintf(stderr, "\r%llu events ...", events);
        shown = true;
    }
    void ClearProgress() {
        if (shown) std::fputs("\r\033[K", stderr);
        shown = false;
    }

    const std::string name;
    win32::EVT_WRITER writer;
    win32::BYTES record;
    std::unique_ptr<AGENT_PACE> pace;  // null: nothing waits for the agent
    size_t ahead = 0, unseen = 0;      // bytes written since it was looked at, and how many may be
    unsigned long long events = 0, unreadable = 0;
    bool terminal = false, shown = false;
};

enum KIND { EVTX, EVT, XML, OTHER };

KIND KindOf(std::string_view head) {
    constexpr std::string_view EvtxSignature("ElfFile\0", 8), EvtHeader("\x30\0\0\0LfLe", 8);
    if (head.starts_with(EvtxSignature)) return EVTX;
    if (head.starts_with(EvtHeader)) return EVT;
    for (const std::string_view mark : {"\xEF\xBB\xBF", "\xFF\xFE", "\xFE\xFF"})
        if (head.starts_with(mark)) head.remove_prefix(mark.size());
    const size_t first = head.find_first_not_of(std::string_view(" \t\r\n\0", 5));
    return first != std::string_view::npos && head[first] == '<' ? XML : OTHER;
}

// The records of a classic .evt file, taken over as they are except for their numbers: those that it holds now, the
// oldest first (so a log may be imported into itself). Damaged places go to the sink as unreadable.
void ImportEvt(const std::string& path, EVENT_SINK& sink) {
    win32::EVT_READER reader;
    DWORD end = 0, oldest = 0, count = 0;
    if (!reader.Open(path)) FailCommand("cannot read " + path, GetLastError());
    if (const DWORD error = reader.Numbers(end, oldest, count); error != ERROR_SUCCESS)
        FailCommand("cannot read " + path, error);
    win32::BYTES buffer(win32::MaxReadBytes / 4 * 4);
    DWORD last = oldest != 0 ? oldest - 1 : 0, damage = 0;  // damage: places named so far
    const auto name = [&] {
        sink.Unreadable("damage after record " + std::to_string(last));
        ++damage;
    };
    for (;;) {
        DWORD bytes = 0, needed = 0;
        const DWORD error = reader.Read(true, buffer.data(), static_cast<DWORD>(buffer.size()), bytes, needed);
        for (DWORD at = 0; at < bytes;) {
            const EVENTLOGRECORD& record = *reinterpret_cast<const EVENTLOGRECORD*>(buffer.data() + at);
            if (record.RecordNumber >= end) return;
            if (record.RecordNumber != last + 1 && damage < reader.Damage()) name();
            sink.TakeRecord(record);
            last = record.RecordNumber;
            at += record.Length;
        }
        while (damage < reader.Damage()) name();
        if (error == ERROR_HANDLE_EOF) return;
        if (error != ERROR_SUCCESS) FailCommand("cannot read " + path, error);
    }
}

void ReadEvents(BYTE_SOURCE& source, const std::string& path, EVENT_SINK& sink) {
    const KIND kind = KindOf(source.Head());
    if (source.Head().empty()) throw COMMAND_ERROR(source.Name() + " is empty");
    if (kind == OTHER) throw COMMAND_ERROR(source.Name() + " holds neither event XML nor an .evtx or .evt file");
    if (kind == EVTX) return ImportEvtx(source.SeekablePath(path), sink);
    if (kind == EVT) return ImportEvt(source.SeekablePath(path), sink);
    EVENT_XML_STREAM stream(sink);
    for (std::string_view bytes = source.Next(); !bytes.empty(); bytes = source.Next()) stream.Feed(bytes);
    stream.Finish();
}

// Passes on what is not older than a time.
class SINCE_SINK final : public EVENT_SINK {
public:
    SINCE_SINK(EVENT_SINK& into, DWORD time) : sink(into), since(time) {}
    void Take(const win32::NEW_EVENT& event) override {
        IsOlder(event.generated) ? ++older : (sink.Take(event), older);
    }
    void TakeRecord(const EVENTLOGRECORD& record) override {
        IsOlder(record.TimeGenerated) ? ++older : (sink.TakeRecord(record), older);
    }
    void Unreadable(const std::string& what) override { sink.Unreadable(what); }
    unsigned long long Older() const { return older; }

private:
    bool IsOlder(DWORD generated) const { return generated < since; }

    EVENT_SINK& sink;
    const DWORD since;
    unsigned long long older = 0;
};

void WarnOfNoFollower(const std::string& log) {
    if (!IsAgentsLog(LogPath(log))) return;
    std::optional<AGENT_PROCESS> agent;
    try {
        agent = FindAgent();
    } catch (const COMMAND_ERROR&) {
        return;  // it may not be looked at: nothing is known
    }
    if (agent && agent->nextRecord) return;
    std::fprintf(stderr,
                 "keldwickctl: no agent follows the %s log now, and none will report these events: it reports what "
                 "comes after it has begun to follow the log (--wait waits for that)\n",
                 log.c_str());
}

}  // namespace

void ImportEvents(const IMPORT_OPTIONS& options) {
    BYTE_SOURCE source(options.file);
    const auto import = [&](auto&& into) {
        SINCE_SINK sink(into, options.since);
        ReadEvents(source, options.file, sink);
        if (sink.Older() > 0)
            std::printf("%llu event%s older than %s left out.\n", sink.Older(), sink.Older() == 1 ? "" : "s",
                        IsoTime(options.since).c_str());
        into.Finish();
    };
    if (options.dryRun) return import(DRY_RUN(options.log));
    const bool waits = options.wait && IsAgentsLog(LogPath(options.log));
    if (!waits) WarnOfNoFollower(options.log);
    import(LOG_SINK(options.log, waits));
}

}  // namespace tools
