#include "tools/keldwickctl/followed_file.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/rotated_files.h"
#include "win32/sync/descriptor.h"

namespace {

constexpr size_t FarBytes = 64 * 1024, TailBytes = 256, BeginningBytes = 1024;

// FNV-1a of the last TailBytes bytes; 0 when there are none.
unsigned long long Fingerprint(std::string_view bytes) {
    if (bytes.empty()) return 0;
    unsigned long long hash = 0xCBF29CE484222325;
    for (const char each : bytes.substr(bytes.size() - std::min(bytes.size(), TailBytes)))
        hash = (hash ^ static_cast<unsigned char>(each)) * 0x100000001B3;
    return hash;
}

struct stat About(int fd) {
    struct stat about = {};
    fstat(fd, &about);
    return about;
}

}  // namespace

std::unique_ptr<FOLLOWED_FILE> FOLLOWED_FILE::Open(const std::string& name) {
    // Another account may have named it: a device may act on being opened.
    const win32::DESCRIPTOR named(open(name.c_str(), O_PATH | O_CLOEXEC));
    if (!named) return nullptr;
    const struct stat about = About(named.Get());
    if (!S_ISREG(about.st_mode)) throw COMMAND_ERROR("cannot follow " + name + ": it is not a regular file");
    const int fd = open(("/proc/self/fd/" + std::to_string(named.Get())).c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return nullptr;
    std::unique_ptr<FOLLOWED_FILE> file(new FOLLOWED_FILE(fd, name));
    file->place.device = about.st_dev;
    file->place.inode = about.st_ino;
    return file;
}

FOLLOWED_FILE::~FOLLOWED_FILE() { close(fd); }

unsigned long long FOLLOWED_FILE::Size() const { return static_cast<unsigned long long>(About(fd).st_size); }

unsigned long long FOLLOWED_FILE::Written() const { return WrittenAt(About(fd)); }

bool FOLLOWED_FILE::IsSame(unsigned long long device, unsigned long long inode) const {
    return place.device == device && place.inode == inode;
}

std::string FOLLOWED_FILE::Bytes(unsigned long long offset, size_t count) const {
    std::string bytes(count, '\0');
    bytes.resize(
        static_cast<size_t>(std::max<ssize_t>(0, pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)))));
    return bytes;
}

std::string FOLLOWED_FILE::Beginning() const { return Bytes(0, BeginningBytes); }

unsigned long long FOLLOWED_FILE::Tail(unsigned long long offset) const {
    const size_t count = std::min<unsigned long long>(offset, TailBytes);
    const std::string bytes = Bytes(offset - count, count);
    return bytes.size() < count ? 0 : Fingerprint(bytes);
}

unsigned long long FOLLOWED_FILE::LineStart(unsigned long long offset) const {
    const unsigned long long begin = offset - std::min<unsigned long long>(offset, FarBytes);
    const size_t end = Bytes(begin, offset - begin).rfind('\n');
    return end == std::string::npos ? 0 : begin + end + 1;
}

void FOLLOWED_FILE::GoTo(unsigned long long offset, unsigned long long fingerprint) {
    place.offset = readTo = offset;
    place.tail = tail = fingerprint;
    lines = {};
}

bool FOLLOWED_FILE::Read(std::span<char> room, std::string_view& bytes, size_t& fresh) const {
    const size_t before = std::min<unsigned long long>(readTo, TailBytes);
    ssize_t got = -1;
    do got = pread(fd, room.data(), room.size(), static_cast<off_t>(readTo - before));
    while (got < 0 && errno == EINTR);
    if (got < 0) throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno));
    bytes = std::string_view(room.data(), static_cast<size_t>(got));
    if (bytes.size() < before || Fingerprint(bytes.substr(0, before)) != tail) return false;
    fresh = bytes.size() - before;
    return true;
}

void FOLLOWED_FILE::Take(std::string_view bytes, size_t fresh, FEED_LINE_TAKER& taker) {
    readTo += fresh;
    tail = Fingerprint(bytes);
    lines.Feed(bytes.substr(bytes.size() - fresh), taker);
    if (lines.Pending() >= fresh) return;  // no line ended
    place.offset = readTo - lines.Pending();
    place.tail = Fingerprint(bytes.substr(0, bytes.size() - lines.Pending()));
}

void FOLLOWED_FILE::Recall(size_t bytes, FEED_LINE_TAKER& taker) const {
    const unsigned long long end = place.offset, begin = end - std::min<unsigned long long>(end, bytes);
    const std::string text = Bytes(begin, end - begin);
    std::string_view whole = text;
    if (begin > 0) whole.remove_prefix(std::min(whole.find('\n'), whole.size()));
    FEED_LINES recalled;
    recalled.Feed(whole, taker);
}
