#include "win32/eventlog/evt_file.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "win32/files/file_lock.h"
#include "win32/files/root_files.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr long long NanosecondsPerSecond = 1000000000;

bool SoundHeader(const EVT_HEADER& header) {
    return header.headerSize == EvtHeaderBytes && header.headerSizeEnd == EvtHeaderBytes &&
           header.signature == EvtSignature && header.major == 1;
}

// Whether header and end-of-file record say the same, and something that can be.
bool Agree(const EVT_HEADER& header, const EVT_END& end) {
    return header.start == end.start && header.end == end.end && header.current == end.current &&
           header.oldest == end.oldest && header.oldest <= header.current && header.current != 0 &&
           (header.start == header.end) == (header.oldest == 0 || header.oldest == header.current);
}

}  // namespace

DWORD EVT_STATE::Used() const { return Wrapped() ? (ringEnd - start) + (end - EvtHeaderBytes) : end - start; }

DWORD EVT_STATE::OffsetOf(DWORD position) const {
    const DWORD beforeEnd = ringEnd - start;
    if (!Wrapped() || position < beforeEnd) return start + position;
    return EvtHeaderBytes + (position - beforeEnd);
}

DWORD EVT_STATE::PositionOf(DWORD offset) const {
    if (offset < EvtHeaderBytes || offset % 4 != 0) return MAXDWORD;
    if (offset >= start && (!Wrapped() || offset <= ringEnd)) return offset - start;
    return Wrapped() && offset <= end ? ringEnd - start + (offset - EvtHeaderBytes) : MAXDWORD;
}

DWORD EVT_STATE::SkipFiller(DWORD position) const {
    if (!Wrapped()) return position;
    const DWORD beforeEnd = ringEnd - start;
    return position < beforeEnd && beforeEnd - position < RecordFixedBytes ? beforeEnd : position;
}

bool EVT_FILE::Open(const std::string& path, bool writable) {
    fd = DESCRIPTOR(OpenRootFile(path, (writable ? O_RDWR : O_RDONLY) | O_NONBLOCK));
    if (!fd) return FailWithErrno();
    struct stat about;
    if (fstat(fd.Get(), &about) != 0 || !S_ISREG(about.st_mode)) {
        Close();
        return FailWith(ERROR_EVENTLOG_FILE_CORRUPT);
    }
    name = path;
    device = about.st_dev;
    file = about.st_ino;
    loaded = UNKNOWN;
    return true;
}

// What the path names now: this open file, about which it tells, or another, or none. Of a name that cannot be looked
// at nothing is known.
EVT_FILE::NAMED EVT_FILE::WhatIsNamed(struct stat& about) const {
    if (stat(name.c_str(), &about) != 0) return errno == ENOENT ? ANOTHER : UNSEEN;
    return about.st_ino == file && about.st_dev == device ? THIS : ANOTHER;
}

bool EVT_FILE::Replaced() const {
    struct stat about;
    return WhatIsNamed(about) == ANOTHER;
}

bool EVT_FILE::Load(EVT_STATE& state) {
    struct stat about;
    return fstat(fd.Get(), &about) == 0 ? LoadAs(about, state) : FailWithErrno();
}

bool EVT_FILE::LoadNamed(EVT_STATE& state, bool& replaced) {
    struct stat about;
    const NAMED named = WhatIsNamed(about);
    replaced = named == ANOTHER;
    if (replaced) return false;
    return named == THIS ? LoadAs(about, state) : Load(state);
}

bool EVT_FILE::LoadAs(const struct stat& about, EVT_STATE& state) {
    const DWORD size = static_cast<DWORD>(std::min<long long>(about.st_size, LargestLog)) / 4 * 4;
    EVT_HEADER header;
    if (!ReadAt(0, &header, sizeof(header)) || !SoundHeader(header)) return FailWith(ERROR_EVENTLOG_FILE_CORRUPT);
    const long long changed = about.st_mtim.tv_sec * NanosecondsPerSecond + about.st_mtim.tv_nsec;
    const bool same =
        loaded != UNKNOWN && size == loadedSize && std::memcmp(&loadedHeader, &header, sizeof(header)) == 0;
    // A header that agreed with the end is as good now: what was written since came before a header that is still to
    // come.
    if (!same || (loaded == SEARCHED && changed != loadedTime)) {
        loaded = UNKNOWN;
        if (Agrees(header, size)) {
            found = {header.start, header.end,   header.current,   header.start == header.end ? 0 : header.oldest,
                     size,         header.flags, header.retention, header.maxSize};
            loaded = AGREED;
        } else if (RecoverState(*this, size, header, found)) {
            loaded = SEARCHED;
        } else {
            return false;
        }
        loadedHeader = header;
        loadedSize = size;
        loadedTime = changed;
    }
    state = found;
    return true;
}

bool EVT_FILE::Agrees(const EVT_HEADER& header, DWORD size) const {
    const bool inside = header.start >= EvtHeaderBytes && header.start % 4 == 0 && header.start <= size &&
                        header.end >= EvtHeaderBytes && header.end % 4 == 0 && header.end <= size;
    EVT_END end;
    return inside && size - header.end >= EvtEndBytes && ReadAt(header.end, &end, sizeof(end)) &&
           end.size == EvtEndBytes && end.ones == 0x11111111 && Agree(header, end);
}

EVT_HEADER EVT_FILE::HeaderOf(const EVT_STATE& state) {
    return {EvtHeaderBytes,
            EvtSignature,
            1,
            1,
            state.start,
            state.end,
            state.current,
            state.oldest,
            state.maxSize,
            state.flags,
            state.retention,
            EvtHeaderBytes};
}

EVT_END EVT_FILE::EndOf(const EVT_STATE& state) {
    return {EvtEndBytes, 0x11111111, 0x22222222,    0x33333333,   0x44444444,
            state.start, state.end,  state.current, state.oldest, EvtEndBytes};
}

bool EVT_FILE::StoreEnd(const EVT_STATE& state) {
    const EVT_END end = EndOf(state);
    return WriteAt(state.end, &end, sizeof(end));
}

bool EVT_FILE::ReadRing(const EVT_STATE& state, DWORD position, BYTE* bytes, DWORD count) const {
    const DWORD offset = state.OffsetOf(position);
    const DWORD straight = offset < state.ringEnd ? std::min(count, state.ringEnd - offset) : count;
    if (!ReadAt(offset, bytes, straight)) return false;
    return straight == count || ReadAt(EvtHeaderBytes, bytes + straight, count - straight);
}

bool EVT_FILE::ReadRing(const EVT_STATE& state, DWORD position, BYTE* bytes, DWORD count, BYTE* after,
                        DWORD& following) const {
    const DWORD offset = state.OffsetOf(position);
    const DWORD straight = offset < state.ringEnd ? state.ringEnd - offset : count;
    const DWORD most = straight > count ? std::min({following, straight - count, state.Used() - position - count}) : 0;
    following = 0;
    if (most > 0) {
        const iovec parts[] = {{bytes, count}, {after, most}};
        const ssize_t got = preadv(fd.Get(), parts, std::size(parts), static_cast<off_t>(offset));
        if (got >= static_cast<ssize_t>(count)) {
            following = static_cast<DWORD>(got) - count;
            return true;
        }
    }
    return ReadRing(state, position, bytes, count);
}

bool EVT_FILE::ReadAt(DWORD offset, void* bytes, size_t count) const {
    for (size_t done = 0; done < count;) {
        const ssize_t got =
            pread(fd.Get(), static_cast<BYTE*>(bytes) + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) return FailWithErrno();
        if (got == 0) return FailWith(ERROR_HANDLE_EOF);
        done += static_cast<size_t>(got);
    }
    return true;
}

bool EVT_FILE::WriteAt(DWORD offset, const void* bytes, size_t count) {
    for (size_t done = 0; done < count;) {
        const ssize_t put =
            pwrite(fd.Get(), static_cast<const BYTE*>(bytes) + done, count - done, static_cast<off_t>(offset + done));
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return FailWithErrno();
        done += static_cast<size_t>(put);
    }
    return true;
}

void EVT_FILE::Mark(DWORD number) const { lseek(fd.Get(), static_cast<off_t>(number), SEEK_SET); }

DWORD EVT_FILE::Size() const {
    struct stat about;
    if (fstat(fd.Get(), &about) != 0) return 0;
    return static_cast<DWORD>(std::min<long long>(about.st_size, MAXDWORD));
}

EVT_LOCK::EVT_LOCK(const EVT_FILE& file, KIND kind)
    : locked(file), held(TakeFileLock(file.fd.Get(), kind == SHARED ? LOCK_SH : LOCK_EX)) {
    if (!held) FailWithErrno();
}

EVT_LOCK::~EVT_LOCK() {
    if (held && locked.IsOpen()) flock(locked.fd.Get(), LOCK_UN);
}

}  // namespace win32
