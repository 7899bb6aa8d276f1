// Follows a file that grows, through rotation by rename, rotation by copy and truncation, replacement and truncation.
#pragma once

#include <array>
#include <deque>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "tools/feed/files.h"

namespace tools::feed {

// Only whole lines are given; one that is still being written waits for its end. A file that was renamed away is read
// on for a while (Linger), since not every process that writes to it moves to the new one at once. One thread's.
class FOLLOWER {
public:
    static constexpr std::chrono::seconds Linger{60};

    explicit FOLLOWER(const std::string& path);

    // Goes on at the position, wherever rotation put the files: below names that begin with the path's. From a position
    // without a place or a time (a new feed) what is rotated already is left alone. False: what was read last is there
    // no more, and the file is read from its beginning.
    bool Resume(const POSITION& position);

    // Gives the lines of the last `bytes` bytes before the places, those of files that were let go included, for a
    // reader that must remember them.
    void Remember(size_t bytes, LINE_TAKER& taker);

    // Reads on, at most 64 KiB, and gives the lines until the taker is full; then the next call goes on with the rest
    // of those bytes. False: there is nothing more for now. Throws COMMAND_ERROR when reading fails.
    bool ReadSome(LINE_TAKER& taker);
    bool HasRest() const { return fresh > 0; }

    // Opens a file that came meanwhile, so that rotation cannot take it away before it is read. For a feed that is held
    // up and does not read.
    void HoldSuccessors();

    bool Waiting() const { return files.empty(); }  // no file is there
    bool Refused() const { return refused; }        // there is one that may not be read; asked for again and again
    POSITION Position() const;                      // after the last line given
    unsigned long long Behind() const;              // of the files that are open
    int Notices() const { return notices.Get(); }   // readable when there may be something; -1: ask now and then
    void TakeNotices() const;

private:
    struct DONE_FILE {  // read to its end and closed
        PLACE end;
        std::string beginning;
    };
    using FILE_POINTER = std::unique_ptr<FOLLOWED_FILE>;

    FILE_POINTER Open(const std::string& name);
    FILE_POINTER Locate(const PLACE& place);
    unsigned long long WrittenOfRotated() const;
    bool AppendSuccessors();
    bool IsOlder(const ROTATED_FILE& file, unsigned long long before, const std::string& beforeName) const;
    bool OpenRotated(size_t at);
    bool OpenCopies(size_t at, bool holdsMore);
    void NoteReplaced();
    bool IsOpen(const FOLLOWED_FILE& file) const;
    unsigned long long KnownPart(const FOLLOWED_FILE& file) const;
    unsigned long long PartIn(const std::vector<ROTATED_FILE>& rotated, const FOLLOWED_FILE& file);
    void FollowTruncation(FOLLOWED_FILE& file);
    void NoteRead(unsigned long long writtenAt);
    void RetireOld(LINE_TAKER& taker);

    const std::string path;
    std::deque<FILE_POINTER> files;  // the newest last
    std::deque<DONE_FILE> done;
    std::array<char, 64 * 1024> chunk;  // of the file that is read
    std::string_view inChunk;           // what was read into it; the last `fresh` bytes of it are not given yet
    size_t fresh = 0;
    FOLLOWED_FILE* reading = nullptr;
    unsigned long long written = 1;  // when what was read last was written
    bool resumed = false, refused = false;
    win32::DESCRIPTOR notices;  // inotify's
};

}  // namespace tools::feed
