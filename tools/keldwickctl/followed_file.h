// One file that a feed follows, held open: how far it was read, and whether what was read is still in it.
#pragma once

#include <chrono>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "tools/keldwickctl/feed_lines.h"
#include "tools/keldwickctl/feed_state.h"

class FOLLOWED_FILE {
public:
    using CLOCK = std::chrono::steady_clock;

    // Null: it cannot be opened, errno says why. Throws COMMAND_ERROR for what is no regular file.
    static std::unique_ptr<FOLLOWED_FILE> Open(const std::string& name);

    ~FOLLOWED_FILE();
    FOLLOWED_FILE(const FOLLOWED_FILE&) = delete;
    FOLLOWED_FILE& operator=(const FOLLOWED_FILE&) = delete;

    unsigned long long Size() const;
    unsigned long long Written() const;  // last, in nanoseconds since 1970
    bool IsSame(unsigned long long device, unsigned long long inode) const;
    std::string Beginning() const;  // at most 1 KiB

    // The fingerprint of the bytes before the offset; 0 when they are not there, or there is nothing before it.
    unsigned long long Tail(unsigned long long offset) const;

    // Where the line that goes on at the offset begins; 0 when that is more than 64 KiB away.
    unsigned long long LineStart(unsigned long long offset) const;

    void GoTo(unsigned long long offset, unsigned long long fingerprint);

    // Reads on into `room`, more than 256 bytes: `bytes` holds what is before what is new, too, `fresh` tells how much
    // is new. False: what was read last is not there any more. Throws COMMAND_ERROR when it cannot be read.
    bool Read(std::span<char> room, std::string_view& bytes, size_t& fresh) const;

    // Takes what Read gave. The fingerprints are of what was taken, whatever becomes of the file meanwhile.
    void Take(std::string_view bytes, size_t fresh, FEED_LINE_TAKER& taker);

    // Gives the whole lines of the last `bytes` bytes before the place.
    void Recall(size_t bytes, FEED_LINE_TAKER& taker) const;

    FEED_PLACE place;  // after the last whole line
    unsigned long long readTo = 0, tail = 0;
    FEED_LINES lines;
    CLOCK::time_point replaced;     // when a newer file was found
    unsigned long long looked = 0;  // Written when its rotated neighbours were last looked at

private:
    FOLLOWED_FILE(int descriptor, const std::string& of) : fd(descriptor), name(of) {}
    std::string Bytes(unsigned long long offset, size_t count) const;

    const int fd;
    const std::string name;
};
