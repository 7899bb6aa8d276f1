// What a feed must know after a restart, in feed/NAME.state below the machine root: one JSON object.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

#include "win32/sync/descriptor.h"

// How far one file was read.
struct FEED_PLACE {
    unsigned long long device = 0, inode = 0, offset = 0;
    unsigned long long tail = 0;  // fingerprint of the bytes before the offset: is it still the same content?

    bool operator==(const FEED_PLACE&) const = default;
};

// How far a file and what rotation made of it were read.
struct FEED_POSITION {
    std::vector<FEED_PLACE> places;  // the file that is followed last; before it those rotated away a moment ago
    // When what was read last was written, in nanoseconds since 1970: a rotated file without a place that is newer was
    // not read. 0: not known.
    unsigned long long written = 0;
};

struct FEED_COUNTS {
    unsigned long long records = 0, skipped = 0, unreadable = 0;
};

struct FEED_STATE : FEED_COUNTS, FEED_POSITION {  // the counts of all runs
    std::string source, file, log;
    unsigned long long nextRecord = 0;  // the first record after the log's last when the places were right
    unsigned long long behind = 0;      // bytes not read yet
    std::string saved;                  // when, ISO; set by Load only
};

std::string FeedPath(const std::string& name, const char* kind);  // of NAME.kind in the feed folder

bool IsFeedRunning(const std::string& name);

// False: there is no state. Throws COMMAND_ERROR when it cannot be read or is damaged.
bool LoadFeedState(const std::string& name, FEED_STATE& state);

// A turn to change the feed's files beside its lock; other streams of the name wait for theirs, which is a matter of
// milliseconds. False: it cannot be had, errno says why, EAGAIN when another process sits on it for 10 s.
class FEED_TURN {
public:
    explicit FEED_TURN(const std::string& name);
    explicit operator bool() const { return taken; }

private:
    const win32::DESCRIPTOR file;
    const bool taken;
};

// A feed that follows a file runs alone. Streams have no place that two processes could dispute: any number of them
// share a name and its counts.
enum class FEED_KIND { FOLLOWER, STREAM };

// A feed's files, made by a process that may be root in a folder that is not root's: nothing there is followed or
// written to that others may have put in its place.
class FEED_STATE_FILE {
public:
    // Makes the folder and takes the feed's lock. Throws COMMAND_ERROR: a name that is none, a feed that is running
    // already, a folder that cannot be written.
    explicit FEED_STATE_FILE(const std::string& feed, FEED_KIND kind = FEED_KIND::FOLLOWER);
    ~FEED_STATE_FILE();
    FEED_STATE_FILE(const FEED_STATE_FILE&) = delete;
    FEED_STATE_FILE& operator=(const FEED_STATE_FILE&) = delete;

    // As LoadFeedState. A stream has no place to lose: its damaged state is set aside as NAME.state.damaged, `damage`
    // says what was wrong, and it begins anew.
    bool Load(FEED_STATE& state, std::string& damage) const;

    // Replaces the state as a whole, on the disk when it returns. Its counts become those in the file and what is
    // added, which is 0 once it stands there; a file that was damaged meanwhile is replaced by a good one. False: errno
    // says why not.
    bool Save(FEED_STATE& state, FEED_COUNTS& added) const;

    std::string Path(const char* of) const { return FeedPath(name, of); }

private:
    const std::string name;
    const FEED_KIND kind;
    int lock = -1;
};

bool IsFeedName(const std::string& name);
