#include "tools/keldwickctl/event_import.h"

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

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_log_access.h"
#include "tools/keldwickctl/event_sink.h"
#include "tools/keldwickctl/event_xml_import.h"
#include "tools/keldwickctl/evt_import.h"
#include "tools/keldwickctl/evtx_import.h"
#include "tools/keldwickctl/failure.h"
#include "tools/text/safe_text.h"

namespace {

constexpr size_t ChunkBytes = 64 * 1024;
constexpr DWORD EventsPerProgress = 5000;

// Writes what it is given to a log, counts and names what it is told is unreadable, and shows progress on a terminal.
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
        fd = path == "-" ? dup(STDIN_FILENO) : open(path.c_str(), O_RDONLY | O_CLOEXEC);
        struct stat about;
        if (fd < 0 || fstat(fd, &about) != 0) Fail();
        if (S_ISDIR(about.st_mode)) throw COMMAND_ERROR("cannot read " + name + ": it is a folder");
        head.resize(ChunkBytes);
        head.resize(Fill(head.data(), head.size()));
    }
    ~SOURCE() { close(fd); }
    SOURCE(const SOURCE&) = delete;
    SOURCE& operator=(const SOURCE&) = delete;

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
            const ssize_t got = read(fd, bytes + done, count - done);
            if (got < 0 && errno == EINTR) continue;
            if (got < 0) Fail();
            if (got == 0) break;
            done += static_cast<size_t>(got);
        }
        return done;
    }
    [[noreturn]] void Fail() const { throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno)); }

    const std::string name;
    int fd = -1;
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
        EVENT_XML_IMPORT import(sink);
        for (std::string_view bytes = source.Next(); !bytes.empty(); bytes = source.Next())
            import.Feed(bytes.data(), bytes.size());
        import.Finish();
    }
    sink.Finish();
}
