#include "tools/keldwickctl/feed_follower.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "tools/keldwickctl/commands.h"

namespace {

constexpr size_t ChunkBytes = 64 * 1024, TailBytes = 256, BeginningBytes = 1024;
constexpr size_t MostSiblings = 1000, MostOpen = 8, MostHeld = 200, MostDone = 64;
using CLOCK = std::chrono::steady_clock;

// A rotated file's name after the path's: .1, -20261124, .2026-11-24T17, .old; nothing that is packed.
bool IsRotated(std::string_view suffix) {
    if (suffix == ".old") return true;
    return suffix.size() > 1 && (suffix[0] == '.' || suffix[0] == '-') &&
           suffix.find_first_not_of("0123456789.-_:T", 1) == std::string_view::npos;
}

// Which of two rotated names is the newer one: numbers count upwards with age, dates do not.
bool IsNewerName(std::string_view a, std::string_view b) {
    const auto isNumber = [](std::string_view name) {
        const std::string_view digits = name.substr(name.rfind('.') + 1);
        return digits.size() < 5 && digits.find_first_not_of("0123456789") == std::string_view::npos;
    };
    if (isNumber(a) && isNumber(b)) return a.size() != b.size() ? a.size() < b.size() : a < b;
    return a > b;
}

// When the file was last written to, as FEED_POSITION counts it.
unsigned long long WrittenAt(const struct stat& about) {
    constexpr unsigned long long NanosecondsPerSecond = 1000000000;
    return static_cast<unsigned long long>(about.st_mtim.tv_sec) * NanosecondsPerSecond +
           static_cast<unsigned long long>(about.st_mtim.tv_nsec);
}

// FNV-1a of the last TailBytes bytes; 0 when there are none.
unsigned long long Fingerprint(std::string_view bytes) {
    if (bytes.empty()) return 0;
    unsigned long long hash = 0xCBF29CE484222325;
    for (const char each : bytes.substr(bytes.size() - std::min(bytes.size(), TailBytes)))
        hash = (hash ^ static_cast<unsigned char>(each)) * 0x100000001B3;
    return hash;
}

// Whether the shorter is what the longer begins with; two that hold nothing have nothing in common.
bool BeginAlike(std::string_view a, std::string_view b) {
    const size_t common = std::min(a.size(), b.size());
    return common > 0 && a.substr(0, common) == b.substr(0, common);
}

}  // namespace

struct FEED_FOLLOWER::OPEN_FILE {
    explicit OPEN_FILE(int descriptor) : fd(descriptor) {}
    ~OPEN_FILE() { close(fd); }
    OPEN_FILE(const OPEN_FILE&) = delete;
    OPEN_FILE& operator=(const OPEN_FILE&) = delete;

    struct stat About() const {
        struct stat about = {};
        fstat(fd, &about);
        return about;
    }

    unsigned long long Size() const { return static_cast<unsigned long long>(About().st_size); }

    std::string Bytes(unsigned long long offset, size_t count) const {
        std::string bytes(count, '\0');
        bytes.resize(static_cast<size_t>(
            std::max<ssize_t>(0, pread(fd, bytes.data(), bytes.size(), static_cast<off_t>(offset)))));
        return bytes;
    }
    std::string Beginning() const { return Bytes(0, BeginningBytes); }

    // The fingerprint of the bytes before the offset; 0 when they are not there, or there is nothing before it.
    unsigned long long Tail(unsigned long long offset) const {
        const size_t count = std::min<unsigned long long>(offset, TailBytes);
        const std::string bytes = Bytes(offset - count, count);
        return bytes.size() < count ? 0 : Fingerprint(bytes);
    }

    // Where the line that goes on at the offset begins; 0 when that is far.
    unsigned long long LineStart(unsigned long long offset) const {
        const unsigned long long begin = offset - std::min<unsigned long long>(offset, ChunkBytes);
        const size_t end = Bytes(begin, offset - begin).rfind('\n');
        return end == std::string::npos ? 0 : begin + end + 1;
    }

    void GoTo(unsigned long long offset, unsigned long long fingerprint) {
        place.offset = readTo = offset;
        place.tail = tail = fingerprint;
        lines = {};
    }

    // Takes what stands behind readTo: `fresh` bytes at the end of `bytes`, which hold what is before them, too. The
    // fingerprints are of what was taken, whatever becomes of the file meanwhile.
    void Take(std::string_view bytes, size_t fresh, FEED_LINE_TAKER& taker) {
        readTo += fresh;
        tail = Fingerprint(bytes);
        lines.Feed(bytes.substr(bytes.size() - fresh), taker);
        if (lines.Pending() >= fresh) return;  // no line ended
        place.offset = readTo - lines.Pending();
        place.tail = Fingerprint(bytes.substr(0, bytes.size() - lines.Pending()));
    }

    // Gives the whole lines of the last `bytes` bytes before the place.
    void Recall(size_t bytes, FEED_LINE_TAKER& taker) const {
        const unsigned long long end = place.offset, begin = end - std::min<unsigned long long>(end, bytes);
        const std::string text = Bytes(begin, end - begin);
        std::string_view whole = text;
        if (begin > 0) whole.remove_prefix(std::min(whole.find('\n'), whole.size()));
        FEED_LINES recalled;
        recalled.Feed(whole, taker);
    }

    const int fd;
    std::string name;
    FEED_PLACE place;  // after the last whole line
    unsigned long long readTo = 0, tail = 0;
    FEED_LINES lines;
    CLOCK::time_point replaced;     // when a newer file was found
    unsigned long long looked = 0;  // when it was written to before its rotated neighbours were last looked at
};

FEED_FOLLOWER::FEED_FOLLOWER(const std::string& file) : path(file) {
    const size_t slash = path.rfind('/');
    folder = slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
    base = path.substr(slash == std::string::npos ? 0 : slash + 1);
    inotify = inotify_init1(IN_NONBLOCK | IN_CLOEXEC);
    if (inotify >= 0 && inotify_add_watch(inotify, folder.c_str(),
                                          IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB) < 0) {
        close(inotify);
        inotify = -1;
    }
}

FEED_FOLLOWER::~FEED_FOLLOWER() {
    if (inotify >= 0) close(inotify);
}

// Null: it is not there, or is a rotated file that cannot be read. Throws when the path itself cannot be read; but what
// rotates files may make a new one before it lets others read it.
FEED_FOLLOWER::FILE_POINTER FEED_FOLLOWER::Open(const std::string& name) {
    const int fd = open(name.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (name == path) refused = fd < 0 && errno == EACCES;
    if (fd < 0 && (errno == ENOENT || name != path || (refused && resumed))) return nullptr;
    if (fd < 0) throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno));
    auto file = std::make_unique<OPEN_FILE>(fd);
    const struct stat about = file->About();
    if (!S_ISREG(about.st_mode)) throw COMMAND_ERROR("cannot follow " + name + ": it is not a regular file");
    file->name = name;
    file->place.device = about.st_dev;
    file->place.inode = about.st_ino;
    return file;
}

// The path itself and what rotation made of it, packed files left out.
std::vector<std::string> FEED_FOLLOWER::Siblings() const {
    std::vector<std::string> names = {path};
    DIR* const listing = opendir(folder.c_str());
    if (listing == nullptr) return names;
    while (const dirent* entry = readdir(listing)) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with(base) || !IsRotated(name.substr(base.size()))) continue;
        names.push_back(folder + "/" + std::string(name));
        if (names.size() >= MostSiblings) break;
    }
    closedir(listing);
    return names;
}

// The file with the content of which the place is the end: the same file if it is one of those, else a copy.
FEED_FOLLOWER::FILE_POINTER FEED_FOLLOWER::Locate(const FEED_PLACE& place) {
    FILE_POINTER copy;
    for (const std::string& name : Siblings()) {
        struct stat about;
        if (stat(name.c_str(), &about) != 0 || !S_ISREG(about.st_mode)) continue;
        const bool same = about.st_dev == place.device && about.st_ino == place.inode;
        if ((!same && place.offset == 0) || static_cast<unsigned long long>(about.st_size) < place.offset) continue;
        FILE_POINTER file = Open(name);
        if (!file || file->Tail(place.offset) != place.tail) continue;
        file->GoTo(place.offset, place.tail);
        if (same) return file;
        copy = std::move(file);
    }
    return copy;
}

bool FEED_FOLLOWER::Resume(const FEED_POSITION& position) {
    files.clear();
    written = position.written != 0 ? position.written : WrittenOfRotated();
    bool found = true;  // of the newest
    for (auto place = position.places.rbegin(); place != position.places.rend(); ++place) {
        FILE_POINTER file = Locate(*place);
        if (place == position.places.rbegin()) found = file != nullptr || place->offset == 0;
        if (file && !IsOpen(*file)) files.push_front(std::move(file));
    }
    AppendSuccessors();
    resumed = true;
    return found;
}

// When the newest of the rotated files was written, which a feed that is new leaves alone; not 0.
unsigned long long FEED_FOLLOWER::WrittenOfRotated() const {
    unsigned long long newest = 1;
    for (const ROTATED& each : Rotated()) newest = std::max(newest, each.written);
    return newest;
}

bool FEED_FOLLOWER::IsOpen(const OPEN_FILE& file) const {
    return std::any_of(files.begin(), files.end(), [&](const FILE_POINTER& each) {
        return each->place.device == file.place.device && each->place.inode == file.place.inode;
    });
}

// Opens what came after the newest file: rotated ones that were last written later, and the path itself.
bool FEED_FOLLOWER::AppendSuccessors() {
    FILE_POINTER current = Open(path);
    if (current && IsOpen(*current)) return false;
    if (!current) return files.empty() && OpenRotated(0);
    const unsigned long long known = current->LineStart(KnownPart(*current));  // or somebody is writing its first line
    current->GoTo(known, current->Tail(known));
    files.push_back(std::move(current));
    OpenRotated(files.size() - 1);
    MarkReplaced();
    return true;
}

void FEED_FOLLOWER::HoldSuccessors() {
    if (files.size() < MostHeld) AppendSuccessors();
}

// How much of the file is read already, or will be, under another name: it may be a copy that somebody made. A number
// alone tells nothing, since a new file may get that of one that is gone.
unsigned long long FEED_FOLLOWER::KnownPart(const OPEN_FILE& file) const {
    const unsigned long long size = file.Size();
    const std::string beginning = file.Beginning();
    for (const FILE_POINTER& each : files) {
        const unsigned long long common = std::min(size, each->Size());
        if (BeginAlike(beginning, each->Beginning()) && file.Tail(common) == each->Tail(common)) return common;
    }
    for (const DONE_FILE& each : done) {
        if (!BeginAlike(beginning, each.beginning)) continue;
        if (size <= each.end.offset || (file.place.device == each.end.device && file.place.inode == each.end.inode))
            return size;
        if (file.Tail(each.end.offset) == each.end.tail) return each.end.offset;
    }
    return 0;
}

// The rotated files, in the order they were written in.
std::vector<FEED_FOLLOWER::ROTATED> FEED_FOLLOWER::Rotated() const {
    std::vector<ROTATED> rotated;
    for (const std::string& name : Siblings()) {
        struct stat about;
        if (name == path || stat(name.c_str(), &about) != 0 || !S_ISREG(about.st_mode)) continue;
        rotated.push_back({name, WrittenAt(about), about.st_dev, about.st_ino});
    }
    std::sort(rotated.begin(), rotated.end(), [](const ROTATED& a, const ROTATED& b) {
        return a.written != b.written ? a.written < b.written : IsNewerName(b.name, a.name);
    });
    return rotated;
}

// Opens before the file number `at`, which holds nothing that was read, the rotated files that hold what came before it
// and after all that was read or stands before it.
bool FEED_FOLLOWER::OpenRotated(size_t at) {
    const OPEN_FILE* const before = at > 0 ? files[at - 1].get() : nullptr;
    const unsigned long long beforeWritten = before != nullptr ? WrittenAt(before->About()) : 0;
    const unsigned long long last = std::max(written, beforeWritten);
    std::vector<ROTATED> candidates = Rotated();
    std::string beforeName;  // it may have been renamed since
    for (const ROTATED& each : candidates)
        if (before != nullptr && each.device == before->place.device && each.inode == before->place.inode)
            beforeName = each.name;
    std::erase_if(candidates, [&](const ROTATED& each) {
        if (each.written == last && last == beforeWritten)
            return beforeName.empty() || !IsNewerName(each.name, beforeName);
        return each.written <= last;
    });
    const size_t first = at;
    for (const ROTATED& each : candidates) {
        FILE_POINTER file = Open(each.name);
        if (!file || IsOpen(*file)) continue;
        const unsigned long long known = KnownPart(*file);
        if (known > 0 && known == file->Size()) continue;
        file->GoTo(known, file->Tail(known));
        files.insert(files.begin() + static_cast<std::ptrdiff_t>(at++), std::move(file));
    }
    MarkReplaced();
    return at > first;
}

// What a file held before it was truncated may stand in a copy. Whether one was opened, to be read before it.
bool FEED_FOLLOWER::OpenCopies(size_t at, bool holdsMore) {
    OPEN_FILE& file = *files[at];
    const unsigned long long now = WrittenAt(file.About());
    if (now == file.looked && !holdsMore) return false;
    file.looked = now;
    return OpenRotated(at);
}

void FEED_FOLLOWER::MarkReplaced() {
    for (size_t i = 0; i + 1 < files.size(); ++i)
        if (files[i]->replaced == CLOCK::time_point()) files[i]->replaced = CLOCK::now();
}

void FEED_FOLLOWER::Remember(size_t bytes, FEED_LINE_TAKER& taker) {
    std::vector<FILE_POINTER> earlier;  // let go, the newest first
    size_t left = bytes;
    for (const FILE_POINTER& file : files) left -= std::min<unsigned long long>(left, file->place.offset);
    const std::vector<ROTATED> rotated = Rotated();
    for (auto each = rotated.rbegin(); each != rotated.rend() && left > 0; ++each) {
        FILE_POINTER file = Open(each->name);
        if (!file || IsOpen(*file)) continue;
        file->place.offset = file->Size();
        left -= std::min<unsigned long long>(left, file->place.offset);
        earlier.push_back(std::move(file));
    }
    for (auto file = earlier.rbegin(); file != earlier.rend(); ++file) (*file)->Recall(bytes, taker);
    for (const FILE_POINTER& file : files) file->Recall(bytes, taker);
}

// The file holds less than was read of it, or something else. What was not read yet may stand in a copy.
void FEED_FOLLOWER::FollowTruncation(OPEN_FILE& file) {
    const FEED_PLACE place = {file.place.device, file.place.inode, file.readTo, file.tail}, ended = file.place;
    FEED_LINES unfinished = std::move(file.lines);
    file.GoTo(0, 0);
    FILE_POINTER copy = place.offset > 0 ? Locate(place) : nullptr;
    if (!copy || IsOpen(*copy)) return;
    copy->lines = std::move(unfinished);
    copy->place.offset = ended.offset;
    copy->place.tail = ended.tail;
    copy->replaced = CLOCK::now();
    const auto self =
        std::find_if(files.begin(), files.end(), [&](const FILE_POINTER& each) { return each.get() == &file; });
    files.insert(self, std::move(copy));
}

bool FEED_FOLLOWER::ReadSome(FEED_LINE_TAKER& taker) {
    std::array<char, ChunkBytes> chunk;
    for (size_t i = 0; i < files.size(); ++i) {
        OPEN_FILE& file = *files[i];
        const size_t before = std::min<unsigned long long>(file.readTo, TailBytes);
        const unsigned long long writtenAt = WrittenAt(file.About());
        const ssize_t got = pread(file.fd, chunk.data(), chunk.size(), static_cast<off_t>(file.readTo - before));
        if (got < 0 && errno == EINTR) return true;
        if (got < 0) throw COMMAND_ERROR("cannot read " + file.name + ": " + std::strerror(errno));
        const std::string_view bytes(chunk.data(), static_cast<size_t>(got));
        if (bytes.size() < before || Fingerprint(bytes.substr(0, before)) != file.tail) {
            FollowTruncation(file);
            return true;
        }
        const size_t fresh = bytes.size() - before;
        if (file.readTo == 0 && OpenCopies(i, fresh > 0)) return true;
        if (file.readTo > 0 || fresh > 0) written = std::max(written, writtenAt);
        if (fresh == 0) continue;
        file.Take(bytes, fresh, taker);
        return true;
    }
    RetireOld(taker);
    return AppendSuccessors();
}

// A file that was read to its end and that nobody has written to for long, or one of too many.
void FEED_FOLLOWER::RetireOld(FEED_LINE_TAKER& taker) {
    const CLOCK::time_point now = CLOCK::now();
    while (files.size() > 1 &&
           (files.size() > MostOpen || now - files.front()->replaced > std::chrono::seconds(Linger))) {
        files.front()->lines.Finish(taker);  // nobody will end that line
        if (done.size() >= MostDone) done.pop_front();
        done.push_back({files.front()->place, files.front()->Beginning()});
        done.back().end.offset = files.front()->readTo;
        done.back().end.tail = files.front()->tail;
        files.pop_front();
    }
}

FEED_POSITION FEED_FOLLOWER::Position() const {
    FEED_POSITION position;
    position.written = written;
    for (const FILE_POINTER& file : files) position.places.push_back(file->place);
    return position;
}

unsigned long long FEED_FOLLOWER::Behind() const {
    unsigned long long bytes = 0;
    for (const FILE_POINTER& file : files) {
        const unsigned long long size = file->Size();
        if (size > file->readTo) bytes += size - file->readTo;
    }
    return bytes;
}

void FEED_FOLLOWER::TakeNotices() const {
    std::array<char, 4096> notices;
    while (read(inotify, notices.data(), notices.size()) > 0) {
    }
}
