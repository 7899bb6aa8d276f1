// The files that a feed reads: one held open, and those that rotation laid beside it, whose names begin with its own.
#pragma once

#include <sys/stat.h>

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "tools/feed/source.h"
#include "tools/feed/state.h"
#include "win32/sync/descriptor.h"

namespace tools::feed {

struct ROTATED_FILE {
    std::string name;            // with its folder
    unsigned long long written;  // last, in nanoseconds since 1970
    unsigned long long device, inode;
};

// The rotated files of that path, in the order they were written in: FILE.1, FILE-20261124, FILE.2026-11-24T17,
// FILE.old. Packed ones are left out, and what is more than a thousand.
std::vector<ROTATED_FILE> RotatedFiles(const std::string& path);

// Which of two rotated names is the newer one: numbers count upwards with age, dates do not.
bool IsNewerName(std::string_view a, std::string_view b);

std::string FolderOf(const std::string& path);

unsigned long long WrittenAt(const struct stat& about);  // in nanoseconds since 1970

// One file held open: how far it was read, and whether what was read is still in it.
class FOLLOWED_FILE {
public:
    using CLOCK = std::chrono::steady_clock;

    // Null: it cannot be opened, errno says why. Throws COMMAND_ERROR for what is no regular file.
    static std::unique_ptr<FOLLOWED_FILE> Open(const std::string& name);

    unsigned long long Size() const;
    unsigned long long Written() const;  // last, in nanoseconds since 1970
    bool IsSame(unsigned long long device, unsigned long long inode) const;
    std::string Beginning() const;  // at most 1 KiB

    // The tail at the offset; 0 when the bytes before it are not there, or it is the beginning.
    unsigned long long Tail(unsigned long long offset) const;

    // Where the line that goes on at the offset begins; 0 when that is more than 64 KiB away.
    unsigned long long LineStart(unsigned long long offset) const;

    void GoTo(unsigned long long offset, unsigned long long tailThere);

    // Reads on into `room`, more than 256 bytes: `bytes` holds what is before what is new, too, `fresh` is how much
    // is new. False: what was read last is not there any more. Throws COMMAND_ERROR when it cannot be read.
    bool Read(std::span<char> room, std::string_view& bytes, size_t& fresh) const;

    // Takes what Read gave, of which the last `fresh` bytes are not taken yet, until the taker is full. How many it
    // took. The tails are of what was taken, whatever becomes of the file meanwhile.
    size_t Take(std::string_view bytes, size_t fresh, LINE_TAKER& taker);

    // Gives the whole lines of the last `bytes` bytes before the place.
    void Recall(size_t bytes, LINE_TAKER& taker) const;

    PLACE place;                              // after the last whole line
    unsigned long long readTo = 0, tail = 0;  // beyond it, in a line that has not ended yet
    LINES lines;
    CLOCK::time_point replaced;     // when a newer file was found
    unsigned long long looked = 0;  // Written when its rotated neighbours were last looked at

private:
    FOLLOWED_FILE(win32::DESCRIPTOR opened, const std::string& of) : file(std::move(opened)), name(of) {}
    std::string Bytes(unsigned long long offset, size_t count) const;

    const win32::DESCRIPTOR file;
    const std::string name;
};

}  // namespace tools::feed
