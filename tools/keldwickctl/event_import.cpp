#include "tools/keldwickctl/events.h"
#include "win32/sync/descriptor.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string_view>
#include <vector>

#include "tools/common/event_logs.h"
#include "tools/common/event_xml.h"
#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/commands.h"

namespace tools {
namespace {

constexpr size_t ChunkBytes = 64 * 1024;
constexpr DWORD EventsPerProgress = 5000;

// Writes what it is given to a log, counts and names what is unreadable, and shows progress on a terminal.
class LOG_SINK final : public EVENT_SINK {
public:
    explicit LOG_SINK(const std::string& log) : name(log) {
        OpenWriter(writer, log);
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
    }

    void Unreadable(const std::string& what) override {
        ClearProgress();
        std::fprintf(stderr, "keldwickctl: not imported: %s\n", SafeText(what).c_str());
        ++unreadable;
    }

    void Finish() {
        if (!writer.Flush())
            FailCommand("cannot write to the " + name + " log after " + std::to_string(writer.Written()) + " events",
                        GetLastError());
        ClearProgress();
        std::printf("%lu event%s imported into the %s log.\n", static_cast<unsigned long>(writer.Written()),
                    writer.Written() == 1 ? "" : "s", name.c_str());
        if (unreadable == 0) return;
        std::fflush(stdout);
        throw COMMAND_ERROR(std::to_string(unreadable) + (unreadable == 1 ? " thing" : " things") +
                            " could not be read and " + (unreadable == 1 ? "is" : "are") + " not in the log");
    }

private:
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
    unsigned long long events = 0, unreadable = 0;
    bool terminal = false, shown = false;
};

// The bytes of the source: a file, or standard input, copied to a file without a name when it must be read out of
// order.
class SOURCE {
public:
    explicit SOURCE(const std::string& path) : name(path == "-" ? "standard input" : path) {
        file = win32::DESCRIPTOR(path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC));
        struct stat about;
        if (!file || fstat(file.Get(), &about) != 0) Fail();
        if (S_ISDIR(about.st_mode)) throw COMMAND_ERROR("cannot read " + name + ": it is a folder");
        head.resize(ChunkBytes);
        head.resize(Fill(head.data(), head.size()));
    }
    const std::string& Name() const { return name; }
    std::string_view Head() const { return {head.data(), head.size()}; }

    // The next bytes in order, the head first; empty at the end.
    std::string_view Next() {
        if (!headGiven) {
            headGiven = true;
            return Head();
        }
        head.resize(ChunkBytes);
        head.resize(Fill(head.data(), head.size()));
        return Head();
    }

    // A path under which the bytes can be read in any order while this object lives.
    std::string SeekablePath(const std::string& path) {
        if (path != "-") return path;
        std::FILE* copy = std::tmpfile();  // no name, gone with the process
        if (copy == nullptr) Fail();
        for (std::string_view bytes = Next(); !bytes.empty(); bytes = Next())
            if (std::fwrite(bytes.data(), 1, bytes.size(), copy) != bytes.size()) Fail();
        if (std::fflush(copy) != 0) Fail();
        return "/proc/self/fd/" + std::to_string(fileno(copy));
    }

private:
    size_t Fill(char* bytes, size_t count) {
        size_t done = 0;
        while (done < count) {
            const ssize_t got = read(file.Get(), bytes + done, count - done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) Fail();
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        return done;
    }
    [[noreturn]] void Fail() const { throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno)); }

    const std::string name;
    win32::DESCRIPTOR file;
    std::vector<char> head;
    bool headGiven = false;
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

}  // namespace

void ImportEvents(const std::string& path, const std::string& log) {
    SOURCE source(path);
    const KIND kind = KindOf(source.Head());
    if (source.Head().empty()) throw COMMAND_ERROR(source.Name() + " is empty");
    if (kind == OTHER) throw COMMAND_ERROR(source.Name() + " holds neither event XML nor an .evtx or .evt file");
    LOG_SINK sink(log);
    if (kind == EVTX) {
        ImportEvtx(source.SeekablePath(path), sink);
    } else if (kind == EVT) {
        ImportEvt(source.SeekablePath(path), sink);
    } else {
        EVENT_XML_STREAM stream(sink);
        for (std::string_view bytes = source.Next(); !bytes.empty(); bytes = source.Next()) stream.Feed(bytes);
        stream.Finish();
    }
    sink.Finish();
}

}  // namespace tools
