#include "tools/feed/follower.h"

#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cstring>

#include "tools/common/failure.h"

namespace tools::feed {
namespace {

constexpr size_t MaxOpen = 8, MaxHeld = 200, MaxDone = 64;
using CLOCK = FOLLOWED_FILE::CLOCK;

// Whether the shorter is what the longer begins with; two that hold nothing have nothing in common.
bool BeginAlike(std::string_view a, std::string_view b) {
    const size_t common = std::min(a.size(), b.size());
    return common > 0 && a.substr(0, common) == b.substr(0, common);
}

// As POSITION counts it; another machine's clock, which a file may have its time from, may be a minute ahead.
unsigned long long LatestTime() {
    const auto now = std::chrono::system_clock::now() + std::chrono::minutes(1);
    return static_cast<unsigned long long>(
        std::chrono::duration_cast<std::chrono::nanoseconds>(now.time_since_epoch()).count());
}

}  // namespace

FOLLOWER::FOLLOWER(const std::string& file) : path(file), notices(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {
    constexpr uint32_t changes = IN_MODIFY | IN_CREATE | IN_MOVED_TO | IN_CLOSE_WRITE | IN_ATTRIB;
    if (inotify_add_watch(notices.Get(), FolderOf(path).c_str(), changes) < 0) notices = win32::DESCRIPTOR();
}

// Null: it is not there, or is a rotated file that cannot be read. Throws when the path itself cannot be read; but what
// rotates files may make a new one before it lets others read it.
FOLLOWER::FILE_POINTER FOLLOWER::Open(const std::string& name) {
    FILE_POINTER file = FOLLOWED_FILE::Open(name);
    const int error = file ? 0 : errno;
    if (name == path) refused = error == EACCES;
    if (file || error == ENOENT || name != path || (refused && resumed)) return file;
    throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(error));
}

// The file with the content of which the place is the end: the same file if it is one of those, else a copy.
FOLLOWER::FILE_POINTER FOLLOWER::Locate(const PLACE& place) {
    std::vector<std::string> names = {path};
    for (const ROTATED_FILE& each : RotatedFiles(path)) names.push_back(each.name);
    FILE_POINTER copy;
    for (const std::string& name : names) {
        FILE_POINTER file = Open(name);
        struct stat about;
        if (!file && errno == EACCES && stat(name.c_str(), &about) == 0 && about.st_dev == place.device &&
            about.st_ino == place.inode)
            throw COMMAND_ERROR("cannot read " + name + ", to go on where the feed was: Permission denied");
        if (!file) continue;
        const bool same = file->IsSame(place.device, place.inode);
        if ((!same && place.offset == 0) || file->Size() < place.offset) continue;
        if (file->Tail(place.offset) != place.tail) continue;
        file->GoTo(place.offset, place.tail);
        if (same) return file;
        copy = std::move(file);
    }
    return copy;
}

bool FOLLOWER::Resume(const POSITION& position) {
    files.clear();
    written = position.written != 0 ? position.written : WrittenOfRotated();
    bool found = true;  // of the newest
    for (auto place = position.places.rbegin(); place != position.places.rend(); ++place) {
        FILE_POINTER file = Locate(*place);
        if (place == position.places.rbegin()) found = file != nullptr || place->offset == 0;
        if (file && !IsOpen(*file)) files.push_front(std::move(file));
    }
    AppendSuccessors();
    for (size_t i = files.size(); i-- > 0;)
        if (files[i]->readTo == 0) OpenCopies(i, true);
    NoteReplaced();
    resumed = true;
    return found;
}

// When the newest of the rotated files was written, which a feed that is new leaves alone; not 0.
unsigned long long FOLLOWER::WrittenOfRotated() const {
    unsigned long long newest = 1;
    for (const ROTATED_FILE& each : RotatedFiles(path))
        if (each.written <= LatestTime()) newest = std::max(newest, each.written);
    return newest;
}

bool FOLLOWER::IsOpen(const FOLLOWED_FILE& file) const {
    return std::any_of(files.begin(), files.end(),
                       [&](const FILE_POINTER& each) { return each->IsSame(file.place.device, file.place.inode); });
}

// Opens what came after the newest file: rotated ones that were last written later, and the path itself.
bool FOLLOWER::AppendSuccessors() {
    FILE_POINTER current = Open(path);
    if (current && IsOpen(*current)) return false;
    if (!current) return OpenRotated(files.size());
    const unsigned long long known =
        current->LineStart(KnownPart(*current));  // or its first line is still being written
    current->GoTo(known, current->Tail(known));
    files.push_back(std::move(current));
    OpenRotated(files.size() - 1);
    NoteReplaced();
    return true;
}

void FOLLOWER::HoldSuccessors() {
    if (files.size() < MaxHeld) AppendSuccessors();
}

// How many bytes of this file were read, or will be, under another name: it may be a copy. The inode
// number proves nothing: a new file may get that of a deleted one.
unsigned long long FOLLOWER::KnownPart(const FOLLOWED_FILE& file) const {
    const unsigned long long size = file.Size();
    const std::string beginning = file.Beginning();
    for (const FILE_POINTER& each : files) {
        const unsigned long long common = std::min(size, each->Size());
        if (BeginAlike(beginning, each->Beginning()) && file.Tail(common) == each->Tail(common)) return common;
    }
    for (const DONE_FILE& each : done) {
        if (!BeginAlike(beginning, each.beginning)) continue;
        if (size <= each.end.offset || file.IsSame(each.end.device, each.end.inode)) return size;
        if (file.Tail(each.end.offset) == each.end.tail) return each.end.offset;
    }
    return 0;
}

// How much of the file stands in one of the rotated ones, too.
unsigned long long FOLLOWER::PartIn(const std::vector<ROTATED_FILE>& rotated, const FOLLOWED_FILE& file) {
    const std::string beginning = file.Beginning();
    unsigned long long part = 0;
    for (const ROTATED_FILE& each : rotated) {
        const FILE_POINTER other = Open(each.name);
        if (!other || !BeginAlike(beginning, other->Beginning())) continue;
        const unsigned long long common = std::min(file.Size(), other->Size());
        if (file.Tail(common) == other->Tail(common)) part = std::max(part, common);
    }
    return part;
}

// Whether a rotated file was written before the last that was read, and the one before it, when there is one. What lies
// in the future is of a clock that was set back since: then names decide, as they do between files of the same time.
bool FOLLOWER::IsOlder(const ROTATED_FILE& file, unsigned long long before, const std::string& beforeName) const {
    const unsigned long long latest = LatestTime(), last = std::max(written <= latest ? written : 0, before);
    if (before == 0) return file.written <= written || file.written > latest;
    const bool byName = std::max(before, file.written) > latest || (file.written == before && last == before);
    return byName ? beforeName.empty() || !IsNewerName(file.name, beforeName) : file.written <= last;
}

// Opens before the file number `at`, which holds nothing that was read, the rotated files that hold what came before it
// and after all that was read or stands before it.
bool FOLLOWER::OpenRotated(size_t at) {
    const FOLLOWED_FILE* const before = at > 0 ? files[at - 1].get() : nullptr;
    const unsigned long long beforeWritten = before != nullptr ? before->Written() : 0;
    std::vector<ROTATED_FILE> candidates = RotatedFiles(path);
    if (at < files.size())  // what came after the file itself, which may be a rotated one, is none of it
        candidates.erase(
            std::find_if(candidates.begin(), candidates.end(),
                         [&](const ROTATED_FILE& each) { return files[at]->IsSame(each.device, each.inode); }),
            candidates.end());
    std::string beforeName;  // it may have been renamed since
    for (const ROTATED_FILE& each : candidates)
        if (before != nullptr && before->IsSame(each.device, each.inode)) beforeName = each.name;
    std::vector<ROTATED_FILE> read;
    std::erase_if(candidates, [&](const ROTATED_FILE& each) {
        const bool old = IsOlder(each, beforeWritten, beforeName);
        if (old) read.push_back(each);
        return old;
    });
    const size_t first = at;
    for (const ROTATED_FILE& each : candidates) {
        FILE_POINTER file = Open(each.name);
        if (!file || IsOpen(*file)) continue;
        const unsigned long long known = std::max(KnownPart(*file), PartIn(read, *file));
        if (known > 0 && known == file->Size()) continue;
        file->GoTo(known, file->Tail(known));
        files.insert(files.begin() + static_cast<std::ptrdiff_t>(at++), std::move(file));
    }
    NoteReplaced();
    return at > first;
}

// What a file held before it was truncated may stand in a copy. Whether one was opened, to be read before it.
bool FOLLOWER::OpenCopies(size_t at, bool holdsMore) {
    FOLLOWED_FILE& file = *files[at];
    const unsigned long long now = file.Written();
    if (now == file.looked && !holdsMore) return false;
    file.looked = now;
    return OpenRotated(at);
}

void FOLLOWER::NoteReplaced() {
    for (size_t i = 0; i + 1 < files.size(); ++i)
        if (files[i]->replaced == CLOCK::time_point()) files[i]->replaced = CLOCK::now();
}

void FOLLOWER::Remember(size_t bytes, LINE_TAKER& taker) {
    std::vector<FILE_POINTER> earlier;  // let go, the newest first
    size_t left = bytes;
    for (const FILE_POINTER& file : files) left -= std::min<unsigned long long>(left, file->place.offset);
    const std::vector<ROTATED_FILE> rotated = RotatedFiles(path);
    for (auto each = rotated.rbegin(); each != rotated.rend() && left > 0; ++each) {
        FILE_POINTER file = each->written > written ? nullptr : Open(each->name);  // newer: not read yet
        if (!file || IsOpen(*file)) continue;
        file->place.offset = file->Size();
        left -= std::min<unsigned long long>(left, file->place.offset);
        earlier.push_back(std::move(file));
    }
    for (auto file = earlier.rbegin(); file != earlier.rend(); ++file) (*file)->Recall(bytes, taker);
    for (const FILE_POINTER& file : files) file->Recall(bytes, taker);
}

// The file holds less than was read of it, or something else. What was not read yet may stand in a copy. Over a rotated
// file another was copied: what it holds now is known, or is found when that one's own file is truncated.
void FOLLOWER::FollowTruncation(FOLLOWED_FILE& file) {
    const auto erase = [&](const auto& which) {
        std::erase_if(files, [&](const FILE_POINTER& each) { return which(*each); });
    };
    const PLACE place = {file.place.device, file.place.inode, file.readTo, file.tail}, ended = file.place;
    LINES unfinished = std::move(file.lines);
    file.GoTo(0, 0);
    FILE_POINTER copy = place.offset > 0 ? Locate(place) : nullptr;
    if (copy)  // over a file that is open
        erase([&](const FOLLOWED_FILE& each) {
            return &each != &file && each.IsSame(copy->place.device, copy->place.inode) &&
                   each.Tail(each.readTo) != each.tail;
        });
    if (copy && !IsOpen(*copy)) {
        copy->lines = std::move(unfinished);
        copy->place.offset = ended.offset;
        copy->place.tail = ended.tail;
        copy->replaced = CLOCK::now();
        const auto self =
            std::find_if(files.begin(), files.end(), [&](const FILE_POINTER& each) { return each.get() == &file; });
        files.insert(self, std::move(copy));
    }
    if (files.back().get() != &file) erase([&](const FOLLOWED_FILE& each) { return &each == &file; });
}

bool FOLLOWER::ReadSome(LINE_TAKER& taker) {
    for (size_t i = 0; i < files.size() && fresh == 0; ++i) {
        FOLLOWED_FILE& file = *files[i];
        const unsigned long long writtenAt = file.Written();
        if (!file.Read(chunk, inChunk, fresh)) {
            FollowTruncation(file);
            return true;
        }
        if (file.readTo == 0 && OpenCopies(i, fresh > 0)) {
            fresh = 0;  // the copy comes first
            return true;
        }
        if (file.readTo > 0 || fresh > 0) NoteRead(writtenAt);
        reading = &file;
    }
    if (fresh > 0) {
        fresh -= reading->Take(inChunk, fresh, taker);
        return true;
    }
    RetireOld(taker);
    return AppendSuccessors();
}

// A clock that was ahead for a while hides nothing of what is written later.
void FOLLOWER::NoteRead(unsigned long long writtenAt) {
    if (writtenAt <= LatestTime()) written = written <= LatestTime() ? std::max(written, writtenAt) : writtenAt;
}

// A file that was read to its end and that was not written to for long, or one of too many.
void FOLLOWER::RetireOld(LINE_TAKER& taker) {
    const CLOCK::time_point now = CLOCK::now();
    while (files.size() > 1 && (files.size() > MaxOpen || now - files.front()->replaced > Linger)) {
        files.front()->lines.Finish(taker);  // no writer will end that line
        if (done.size() >= MaxDone) done.pop_front();
        done.push_back({files.front()->place, files.front()->Beginning()});
        done.back().end.offset = files.front()->readTo;
        done.back().end.tail = files.front()->tail;
        files.pop_front();
    }
}

POSITION FOLLOWER::Position() const {
    POSITION position;
    position.written = written;
    for (const FILE_POINTER& file : files) position.places.push_back(file->place);
    return position;
}

unsigned long long FOLLOWER::Behind() const {
    unsigned long long bytes = 0;
    for (const FILE_POINTER& file : files) {
        const unsigned long long size = file->Size();
        if (size > file->readTo) bytes += size - file->readTo;
    }
    return bytes;
}

void FOLLOWER::TakeNotices() const {
    std::array<char, 4096> taken;
    while (read(notices.Get(), taken.data(), taken.size()) > 0) {
    }
}

}  // namespace tools::feed
