#include "win32/eventlog/evt_writer.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <iterator>

#include "win32/eventlog/evt_cursor.h"
#include "win32/files/root_files.h"
#include "win32/text/last_error.h"

namespace win32 {
namespace {

constexpr DWORD GatherBytes = 1024 * 1024;
constexpr mode_t LogMode = 0640;

DWORD RoundedSize(DWORD maxSize) { return std::clamp(maxSize, SmallestLog, LargestLog) / SmallestLog * SmallestLog; }

// The largest stretch written at once into a log of that size: with the end-of-file record and filler it must leave the
// ring at least half for what was there.
DWORD LargestRun(DWORD limit) { return std::min(GatherBytes, (limit - EvtHeaderBytes) / 2); }

bool Fits(DWORD length, DWORD limit) { return length + EvtEndBytes + RecordFixedBytes <= limit - EvtHeaderBytes; }

// A new log beside the old one.
class REPLACEMENT {
public:
    explicit REPLACEMENT(const std::string& path) : beside(path, LogMode) {
        if (!beside) FailWithErrno();
        if (!beside || !file.Open(beside.Path(), true)) error = GetLastError();
    }
    explicit operator bool() const { return file.IsOpen() || FailWith(error); }

    bool TakePlace() { return beside.TakePlace() || FailWithErrno(); }
    // Takes the place only if nothing is there.
    bool TakeFreePlace() { return beside.TakeFreePlace() || errno == EEXIST || FailWithErrno(); }

    EVT_FILE file;

private:
    REPLACEMENT_FILE beside;
    DWORD error = ERROR_SUCCESS;
};

EVT_STATE EmptyState(DWORD maxSize) {
    EVT_STATE state;
    state.maxSize = RoundedSize(maxSize);
    state.ringEnd = state.maxSize;
    return state;
}

bool StoreBoth(EVT_FILE& file, const EVT_STATE& state) { return file.StoreEnd(state) && file.StoreHeader(state); }

}  // namespace

EVT_WRITER::EVT_WRITER() = default;
EVT_WRITER::~EVT_WRITER() = default;

bool EVT_WRITER::Open(const std::string& logPath, DWORD maxSize) {
    path = logPath;
    gathered.clear();
    written = 0;
    SetMaxSize(maxSize);
    file = std::make_unique<EVT_FILE>();
    if (!file->Open(path, true)) return false;
    const EVT_LOCK lock(*file, EVT_LOCK::SHARED);
    return lock && file->Load(state);
}

void EVT_WRITER::SetMaxSize(DWORD maxSize) { limit = RoundedSize(maxSize); }

bool EVT_WRITER::Append(const EVENTLOGRECORD& record) {
    if (record.Length > MaxRecordBytes || !Fits(record.Length, limit)) return FailWith(ERROR_LOG_FILE_FULL);
    const BYTE* bytes = reinterpret_cast<const BYTE*>(&record);
    gathered.insert(gathered.end(), bytes, bytes + record.Length);
    return gathered.size() < GatherBytes || Flush();
}

bool EVT_WRITER::Flush() {
    bool good = gathered.empty(), again = !good;
    for (int attempt = 0; again && attempt < MaxReplacements; ++attempt) {
        if (!file->IsOpen() && !file->Open(path, true)) break;
        {
            const EVT_LOCK lock(*file, EVT_LOCK::EXCLUSIVE);
            again = false;
            good = lock && WriteGathered(again);
        }
        if (again) file->Close();
    }
    gathered.clear();
    return good;
}

bool EVT_WRITER::WriteGathered(bool& again) {
    again = file->Replaced();
    if (again || !Enter()) return false;
    const DWORD size = file->Size();
    if (state.Wrapped() ? size != limit : size > limit) {
        again = Rebuild();
        return false;
    }
    state.ringEnd = limit;
    for (DWORD at = 0; at < gathered.size();) {
        DWORD bytes = 0, records = 0;
        while (at + bytes < gathered.size()) {
            const DWORD length = reinterpret_cast<const EVENTLOGRECORD*>(gathered.data() + at + bytes)->Length;
            if (records > 0 && bytes + length > LargestRun(limit)) break;
            bytes += length;
            ++records;
        }
        if (!WriteRun(gathered.data() + at, bytes, records)) return false;
        at += bytes;
        written += records;
    }
    return true;
}

bool EVT_WRITER::Enter() {
    if (!file->Load(state)) return false;
    EVT_HEADER header;
    EVT_END end;
    state.maxSize = limit;
    const EVT_HEADER wanted = EVT_FILE::HeaderOf(state);
    const EVT_END wantedEnd = EVT_FILE::EndOf(state);
    const bool headerStands = file->ReadAt(0, &header, sizeof(header)) && header.start == wanted.start &&
                              header.end == wanted.end && header.current == wanted.current &&
                              header.oldest == wanted.oldest;
    const bool endStands =
        file->ReadAt(state.end, &end, sizeof(end)) && std::memcmp(&end, &wantedEnd, sizeof(end)) == 0;
    return (headerStands && endStands) || StoreBoth(*file, state);  // a torn tail is mended here
}

// Where less than a record's fixed part is left before the ring's end, filler goes there and the next bytes to its
// start.
void EVT_WRITER::FillRingEnd(DWORD& offset) {
    const DWORD left = offset < limit ? limit - offset : 0;
    if (left >= RecordFixedBytes) return;
    const BYTE filler[] = {EvtFiller, 0, 0, 0};
    for (DWORD filled = 0; filled < left; filled += sizeof(filler))
        stream.insert(stream.end(), std::begin(filler), std::end(filler));
    offset = EvtHeaderBytes;
}

// Appends records of together at most LargestRun bytes, or one record.
bool EVT_WRITER::WriteRun(const BYTE* run, DWORD bytes, DWORD records) {
    if (records >= MAXDWORD - state.current)
        return FailWith(ERROR_LOG_FILE_FULL);  // no numbers are left: it must be cleared
    stream.clear();
    DWORD offset = state.end, number = state.current;
    FillRingEnd(offset);
    const DWORD firstOffset = offset;
    for (DWORD at = 0; at < bytes;) {
        const size_t begin = stream.size();
        const DWORD length = reinterpret_cast<const EVENTLOGRECORD*>(run + at)->Length;
        stream.insert(stream.end(), run + at, run + at + length);
        reinterpret_cast<EVENTLOGRECORD*>(stream.data() + begin)->RecordNumber = number++;
        at += length;
        offset += length;
        if (offset >= limit) offset = EvtHeaderBytes + (offset - limit);
        FillRingEnd(offset);
    }
    if (!MakeRoom(static_cast<DWORD>(stream.size()) + EvtEndBytes)) return false;

    EVT_STATE after = state;
    if (after.oldest == 0) {
        after.oldest = after.current;
        after.start = firstOffset;
    }
    after.end = offset;
    after.current += records;
    after.flags = (after.flags & EvtArchive) | (after.Wrapped() ? EvtWrapped : 0);
    const EVT_END end = EVT_FILE::EndOf(after);
    stream.insert(stream.end(), reinterpret_cast<const BYTE*>(&end), reinterpret_cast<const BYTE*>(&end) + sizeof(end));
    const size_t straight = std::min<size_t>(stream.size(), limit - state.end);
    if (file->WriteAt(state.end, stream.data(), straight) &&
        file->WriteAt(EvtHeaderBytes, stream.data() + straight, stream.size() - straight) && file->StoreHeader(after)) {
        state = after;
        return true;
    }
    const DWORD error = GetLastError();
    StoreBoth(*file, state);
    return FailWith(error);
}

// Gives up the oldest records until that many bytes are free after the end; the header says so before they are
// written over.
bool EVT_WRITER::MakeRoom(DWORD bytes) {
    const DWORD ring = limit - EvtHeaderBytes;
    const DWORD used = state.Used();
    if (used + bytes <= ring) return true;
    const DWORD give = used + bytes - ring;
    EVT_CURSOR cursor(*file, state);
    DWORD position = 0, number = state.oldest, ignored = 0;
    const EVENTLOGRECORD* record = cursor.Find(position, number, ignored);
    while (record != nullptr && position < give) {
        position += record->Length;
        number = record->RecordNumber + 1;
        record = cursor.Find(position, number, ignored);
    }
    const DWORD start = record ? state.OffsetOf(position) : state.end;
    state.oldest = record ? record->RecordNumber : 0;
    state.start = start;
    EVT_STATE dirty = state;
    dirty.flags |= EvtDirty;
    return file->StoreHeader(dirty);
}

// Copies the newest records that fit into a new file of the size that the log is to have now, and puts it in the old
// one's place. The old file is marked, so that its readers know to go on in the new one.
bool EVT_WRITER::Rebuild() {
    REPLACEMENT copy(path);
    if (!copy) return false;
    EVT_STATE after = state;
    after.start = after.end = EvtHeaderBytes;
    after.oldest = 0;
    after.maxSize = limit;
    after.flags &= EvtArchive;

    EVT_CURSOR cursor(*file, state);
    const DWORD room = limit - EvtHeaderBytes - EvtEndBytes - RecordFixedBytes;
    DWORD position = 0, number = state.oldest, ignored = 0;
    BYTES run;
    while (const EVENTLOGRECORD* record = cursor.Find(position, number, ignored)) {
        if (state.Used() - position <= room) {
            if (after.oldest == 0) after.oldest = record->RecordNumber;
            run.insert(run.end(), reinterpret_cast<const BYTE*>(record),
                       reinterpret_cast<const BYTE*>(record) + record->Length);
        }
        if (run.size() >= GatherBytes) {
            if (!copy.file.WriteAt(after.end, run.data(), run.size())) return false;
            after.end += static_cast<DWORD>(run.size());
            run.clear();
        }
        number = record->RecordNumber + 1;
        position += record->Length;
    }
    if (!copy.file.WriteAt(after.end, run.data(), run.size())) return false;
    after.end += static_cast<DWORD>(run.size());
    if (!StoreBoth(copy.file, after)) return false;

    EVT_STATE marked = state;
    marked.flags |= EvtContinued;
    if (!file->StoreHeader(marked)) return false;
    if (copy.TakePlace()) return true;
    const DWORD error = GetLastError();
    file->StoreHeader(state);
    return FailWith(error);
}

bool CreateLogFile(const std::string& path, DWORD maxSize) {
    if (access(path.c_str(), F_OK) == 0) return true;
    REPLACEMENT made(path);
    return made && StoreBoth(made.file, EmptyState(maxSize)) && made.TakeFreePlace();
}

bool ClearLogFile(const std::string& path, DWORD maxSize) {
    for (int attempt = 0; attempt < MaxReplacements; ++attempt) {
        EVT_FILE old;
        if (!old.Open(path, true)) return false;
        const EVT_LOCK lock(old, EVT_LOCK::EXCLUSIVE);
        if (!lock) return false;
        if (old.Replaced()) continue;
        REPLACEMENT made(path);
        return made && StoreBoth(made.file, EmptyState(maxSize)) && made.TakePlace();
    }
    return FailWith(ERROR_BUSY);
}

}  // namespace win32
