#include "tools/feed/intake.h"

#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/feed/feed.h"

namespace tools::feed {
namespace {

constexpr std::chrono::milliseconds LookPause{1000};          // at a followed file, in case a notice of it was lost
constexpr std::chrono::milliseconds LookUnnoticedPause{200};  // on a file system that gives no notice
constexpr size_t MaxDrainedBytes = 1024 * 1024;               // of standard input after a stop

// Lets a reader see again what it must remember, and drops what it makes of it.
class REMEMBERING final : public LINE_TAKER {
public:
    explicit REMEMBERING(LINE_READER& lineReader) : reader(lineReader) {}
    void TakeLine(std::string_view line) override { reader.Read(line, event, reason); }
    void TakeTooLong(std::string_view) override {}

private:
    LINE_READER& reader;
    win32::NEW_EVENT event;
    std::string reason;
};

}  // namespace

void INTAKE::TakeLine(std::string_view line) {
    ++lines;
    switch (reader->Read(line, event, reason)) {
        case LINE_READER::RECORD:
            Put(line);
            break;
        case LINE_READER::SKIPPED:
            ++counts.skipped;
            break;
        case LINE_READER::UNREADABLE:
            SetAside(reason, line);
            break;
    }
}

void INTAKE::TakeTooLong(std::string_view beginning) {
    ++lines;
    SetAside("longer than 1 MiB, its beginning", beginning);
}

void INTAKE::Take(const win32::NEW_EVENT& taken) {
    ++lines;
    event = taken;
    Put({});
}

void INTAKE::Unreadable(const std::string& what) {
    ++lines;
    SetAside(what, {});
}

void INTAKE::Put(std::string_view line) {
    if (!log.Take(event, reason)) return SetAside(reason, line);
    ++counts.records;
}

void INTAKE::SetAside(const std::string& why, std::string_view line) {
    if (counts.unreadable++ == 0) firstFault = why;
    aside.Keep(why, line);
}

FOLLOWED_INPUT::FOLLOWED_INPUT(const OPTIONS& given, LINE_READER& reader, const MARKS& marks, INTAKE& into,
                               CONSOLE& console)
    : options(given), intake(into), refusal(console, ""), follower(given.file) {
    if (!follower.Resume(marks.Position()))
        console.Say("what was read last is there no more; " + options.file + " is read from its beginning");
    if (follower.Waiting()) {
        if (options.once) throw COMMAND_ERROR("cannot read " + options.file + ": there is no such file");
        console.Say("waiting for " + options.file);
    }
    REMEMBERING remembering(reader);
    if (!marks.IsNew()) follower.Remember(reader.Memory(), remembering);
}

INPUT::RESULT FOLLOWED_INPUT::Read(bool ready, bool stopped) {
    if (ready) follower.TakeNotices();
    if (stopped && !follower.HasRest()) return END;
    if (follower.ReadSome(intake)) return follower.HasRest() ? REST : SOME;
    if (options.once) return END;
    follower.Refused() ? refusal.Begin("may not read " + options.file + ", trying again") : refusal.End();
    due = CLOCK::now() + (follower.Notices() >= 0 ? LookPause : LookUnnoticedPause);
    return NOTHING;
}

INPUT::RESULT STREAM_INPUT::Read(bool ready, bool stopped) {
    if (!Give(rest)) return REST;
    over = over || (stopped && (!ready || drained >= MaxDrainedBytes));
    if (over) return Finish() ? END : REST;
    if (!ready) return NOTHING;
    const ssize_t got = read(STDIN_FILENO, chunk.data(), chunk.size());
    if (got < 0 && errno != EINTR && errno != EAGAIN) error = errno;
    over = got == 0 || error != 0;
    rest = std::string_view(chunk.data(), static_cast<size_t>(std::max<ssize_t>(got, 0)));
    if (stopped) drained += std::max<size_t>(rest.size(), 1);
    return Give(rest) ? SOME : REST;
}

int STREAM_INPUT::Descriptor() const { return STDIN_FILENO; }

void STREAM_INPUT::Check() const {
    if (error != 0) throw COMMAND_ERROR(std::string("cannot read standard input: ") + std::strerror(error));
}

bool LINE_INPUT::Give(std::string_view& bytes) {
    bytes.remove_prefix(lines.Feed(bytes, intake));
    return bytes.empty();
}

bool LINE_INPUT::Finish() {
    if (intake.Full()) return false;
    lines.Finish(intake);
    return true;
}

bool XML_INPUT::Give(std::string_view& bytes) {
    if (!scanned || !bytes.empty()) scanned = stream.Feed(std::exchange(bytes, {}));
    return scanned;
}

}  // namespace tools::feed
