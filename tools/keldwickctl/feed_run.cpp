#include "tools/keldwickctl/feed_run.h"

#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <functional>
#include <optional>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_xml_import.h"
#include "tools/keldwickctl/feed.h"
#include "tools/keldwickctl/feed_follower.h"

namespace {

constexpr int LookMilliseconds = 1000;          // at a followed file, in case a notice of it was lost
constexpr int LookUnnoticedMilliseconds = 200;  // on a file system that gives no notice
constexpr size_t MostDrained = 1024 * 1024;     // of standard input after a stop

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

// What standard input has now, once there is something; nothing: its end, or, with an error code, what ended it.
std::optional<std::string_view> ReadChunk(std::array<char, 64 * 1024>& chunk, int& error) {
    const ssize_t got = read(STDIN_FILENO, chunk.data(), chunk.size());
    if (got < 0 && errno != EINTR && errno != EAGAIN) error = errno;
    if (got == 0 || error != 0) return std::nullopt;
    return std::string_view(chunk.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
}

// Standard input until its end, or a stop and what it holds then; `take` gets the bytes, `finish` the end.
void ReadStandardInput(FEED& feed, const std::function<void(std::string_view)>& take,
                       const std::function<void()>& finish) {
    std::array<char, 64 * 1024> chunk;
    size_t drained = 0;
    int error = 0;
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
        const auto bytes = ReadChunk(chunk, error);
        if (!bytes) break;
        if (feed.Stopped()) drained += std::max<size_t>(bytes->size(), 1);
        take(*bytes);
        feed.ShowProgress(0);
    }
    finish();
    feed.Flush();
    feed.Mark({}, 0);
    feed.Finish();
    if (error != 0) throw COMMAND_ERROR(std::string("cannot read standard input: ") + std::strerror(error));
}

}  // namespace

void FollowFile(const FEED_OPTIONS& options, FEED_LINE_READER& reader) {
    FEED feed(options, &reader);
    FEED_FOLLOWER follower(options.file);
    feed.WhileWaiting([&] { follower.HoldSuccessors(); });
    if (!follower.Resume(feed.Position()))
        feed.Tell("what was read last is there no more; " + options.file + " is read from its beginning");
    bool refused = false;
    if (follower.Waiting()) {
        if (options.once) throw COMMAND_ERROR("cannot read " + options.file + ": there is no such file");
        feed.Tell("waiting for " + options.file);
    }
    if (feed.IsNew()) {
        feed.Mark(follower.Position(), follower.Behind());
    } else {
        REMEMBERING remembering(reader);
        follower.Remember(reader.Memory(), remembering);
    }
    while (!feed.Stopped()) {
        if (follower.ReadSome(feed)) {
            if (feed.IsMarkDue() && feed.MillisecondsToMark() == 0) {
                feed.Flush();
                feed.Mark(follower.Position(), follower.Behind());
            }
            feed.ShowProgress(follower.Behind());
            feed.Wait(-1, 0);
            continue;
        }
        feed.Flush();
        feed.NotePause();
        feed.EndRecognition();
        if (options.once) break;
        if (follower.Refused() && !refused) feed.Tell("may not read " + options.file + ", trying again");
        refused = follower.Refused();
        feed.NotePlaces(follower.Position());
        if (feed.IsMarkDue() && feed.MillisecondsToMark() == 0) feed.Mark(follower.Position(), follower.Behind());
        const int look = follower.Notices() >= 0 ? LookMilliseconds : LookUnnoticedMilliseconds;
        if (feed.Wait(follower.Notices(), feed.IsMarkDue() ? std::min(feed.MillisecondsToMark(), look) : look))
            follower.TakeNotices();
    }
    feed.Flush();
    feed.Mark(follower.Position(), follower.Behind());
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
