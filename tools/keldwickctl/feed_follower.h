// Follows a file that grows, through rotation by rename, rotation by copy and truncation, replacement and truncation.
#pragma once

#include <deque>
#include <memory>
#include <string>
#include <vector>

#include "tools/keldwickctl/feed_lines.h"
#include "tools/keldwickctl/feed_state.h"

// Only whole lines are given; one that is still being written waits for its end. A file that was renamed away is read
// on for Linger seconds, since not every process that writes to it moves to the new one at once. One thread's.
class FEED_FOLLOWER {
public:
    static constexpr int Linger = 60;

    explicit FEED_FOLLOWER(const std::string& path);
    ~FEED_FOLLOWER();

    // Goes on at the places, wherever rotation put the files: below names that begin with the path's. False: what was
    // read last is there no more, and the file is read from its beginning.
    bool Resume(const std::vector<FEED_PLACE>& places);

    // Gives the lines of the last `bytes` bytes before the place, for a reader that must remember them.
    void Remember(size_t bytes, FEED_LINE_TAKER& taker) const;

    // Reads on, at most 64 KiB. False: there is nothing more for now. Throws COMMAND_ERROR when reading fails.
    bool ReadSome(FEED_LINE_TAKER& taker);

    // Opens a file that came meanwhile, so that rotation cannot take it away before it is read. For a taker that keeps
    // ReadSome waiting for long.
    void HoldSuccessors();

    bool Waiting() const { return files.empty(); }  // no file is there
    std::vector<FEED_PLACE> Places() const;         // after the last line given
    unsigned long long Behind() const;              // bytes not read yet, of files that are open
    int Notices() const { return inotify; }         // readable when there may be something; -1: ask now and then
    void TakeNotices() const;

private:
    struct OPEN_FILE;
    struct DONE_FILE {  // read to its end and closed
        FEED_PLACE end;
        std::string beginning;
    };
    using FILE_POINTER = std::unique_ptr<OPEN_FILE>;

    FILE_POINTER Open(const std::string& name) const;
    FILE_POINTER Locate(const FEED_PLACE& place) const;
    std::vector<std::string> Siblings() const;
    bool AppendSuccessors();
    void AppendRotated(const OPEN_FILE& current);
    void MarkReplaced();
    bool IsOpen(const OPEN_FILE& file) const;
    unsigned long long KnownPart(const OPEN_FILE& file) const;
    void FollowTruncation(OPEN_FILE& file);
    void RetireOld(FEED_LINE_TAKER& taker);

    const std::string path;
    std::string folder, base;
    std::deque<FILE_POINTER> files;  // the newest last
    std::deque<DONE_FILE> done;
    int inotify = -1;
};
