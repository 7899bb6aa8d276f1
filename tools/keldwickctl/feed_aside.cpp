#include "tools/keldwickctl/feed_aside.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "tools/keldwickctl/event_values.h"
#include "tools/keldwickctl/feed_state.h"
#include "tools/text/safe_text.h"
#include "win32/eventlog/evt_record.h"
#include "win32/files/root_files.h"

FEED_ASIDE::FEED_ASIDE(const std::string& name) : feed(name), path(FeedPath(name, "aside")) {}

void FEED_ASIDE::Keep(const std::string& reason, std::string_view line) {
    constexpr size_t Longest = 64 * 1024;
    std::string entry = "# " + IsoTime(win32::SecondsNow()) + " " + SafeText(reason);
    if (line.size() > Longest) entry += " (its first 64 KiB)";
    entry += '\n';
    if (!line.empty()) entry.append(line.substr(0, Longest)) += '\n';
    const FEED_TURN turn(feed);
    if (!turn) return;
    struct stat about;
    if (stat(path.c_str(), &about) == 0 && static_cast<size_t>(about.st_size) + entry.size() > Most / 2)
        win32::RenameRootFile(path, path + ".old");
    const win32::DESCRIPTOR file(win32::OpenRootFile(path, O_WRONLY | O_APPEND | O_CREAT, 0600));
    // Cut back when it does not fit the disk, so that the next entry begins on a line of its own.
    if (file && fstat(file.Get(), &about) == 0 &&
        write(file.Get(), entry.data(), entry.size()) != static_cast<ssize_t>(entry.size()) &&
        ftruncate(file.Get(), about.st_size) != 0)
        win32::RemoveRootFile(path);
}
