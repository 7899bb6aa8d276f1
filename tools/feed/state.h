// A feed's files in the folder feed below the machine root: its state, which is what it must know after a restart (one
// JSON object), its locks, and what it keeps aside.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>
#include <vector>

#include "win32/sync/descriptor.h"

namespace tools::feed {

// How far one file was read; `tail` shows whether it is still the same content.
struct PLACE {
    unsigned long long device = 0, inode = 0, offset = 0;
    unsigned long long tail = 0;

    bool operator==(const PLACE&) const = default;
};

// How far a file and what rotation made of it were read.
struct POSITION {
    std::vector<PLACE> places;  // the file that is followed last; before it those rotated away a moment ago
    // When what was read last was written, in nanoseconds since 1970: a rotated file without a place that is newer was
    // not read. 0: not known.
    unsigned long long written = 0;
};

struct COUNTS {
    unsigned long long records = 0, skipped = 0, unreadable = 0;
};

struct STATE : COUNTS, POSITION {  // the counts of all runs
    std::string source, file, log;
    unsigned long long nextRecord = 0;  // the first record after the log's last when the position was right
    unsigned long long behind = 0;
    std::string saved;  // when, ISO; set by Load only

    bool HasReadNothing() const { return records + skipped + unreadable == 0; }
};

std::string FilePath(const std::string& name, const char* kind);  // of NAME.kind in the folder

bool IsRunning(const std::string& name);

// Whether the feed has left anything that Forget removes; its locks stay and mean nothing.
bool IsKept(const std::string& name);

// False: there is no state. Throws COMMAND_ERROR when it cannot be read or is damaged.
bool LoadState(const std::string& name, STATE& state);

// A turn to change the feed's files beside its lock; other streams of the name wait for theirs, which is a matter of
// milliseconds. False: it cannot be had, errno says why, EAGAIN when another process sits on it for 10 s.
class TURN {
public:
    explicit TURN(const std::string& name);
    explicit operator bool() const { return taken; }

private:
    const win32::DESCRIPTOR file;
    const bool taken;
};

// A feed that follows a file runs alone. Streams have no place that two processes could dispute: any number of them
// share a name and its counts.
enum class KIND { FOLLOWER, STREAM };

// A feed's files, made by a process that may be root in a folder that is not root's: nothing there is followed or
// written to that others may have put in its place.
class STATE_FILE {
public:
    // Makes the folder and takes the feed's lock. Throws COMMAND_ERROR: a name that is none, a feed that is running
    // already, a folder that cannot be written.
    explicit STATE_FILE(const std::string& feed, KIND kind = KIND::FOLLOWER);

    // As LoadState. A stream has no place to lose: its damaged state is set aside as NAME.state.damaged, `damage`
    // says what was wrong, and its counts begin again.
    bool Load(STATE& state, std::string& damage) const;

    // Replaces the state as a whole, on the disk when it returns. Its counts become those in the file and what is
    // added, which is 0 once it stands there; a file that was damaged meanwhile is replaced by a good one. False: errno
    // says why not.
    bool Save(STATE& state, COUNTS& added) const;

    std::string Path(const char* of) const { return FilePath(name, of); }

private:
    const std::string name;
    const KIND kind;
    win32::DESCRIPTOR lock;
};

bool IsFeedName(const std::string& name);

// Removes all files of the feed but its locks, which a waiting process has open. Throws COMMAND_ERROR: there is no
// such feed, it runs, or they cannot be removed.
void Forget(const std::string& name);

// What a feed could not read, kept for a look at it: NAME.aside and, of what came before, NAME.aside.old.
//
// Each thing is a comment line with time and reason and the line itself, cut where it is long. Both files together stay
// within MaxBytes; the oldest go first. A disk that is full costs the keeping, never the feed. Streams
// of one name keep theirs one after another.
class ASIDE {
public:
    static constexpr size_t MaxBytes = 1024 * 1024;

    explicit ASIDE(const std::string& name);
    void Keep(const std::string& reason, std::string_view line);

private:
    const std::string feed, path;
};

}  // namespace tools::feed
