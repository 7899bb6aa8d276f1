#include "tools/feed/log.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>
#include <functional>
#include <string_view>

#include "tools/common/event_logs.h"
#include "win32/eventlog/log_names.h"
#include "win32/files/root_files.h"
#include "win32/text/utf.h"

namespace tools::feed {
namespace {

constexpr size_t WriteBackBytes = size_t{2} << 20;

// What makes two records the same one: all but number and times.
size_t ContentKey(const EVENTLOGRECORD& record) {
    const auto* const bytes = reinterpret_cast<const char*>(&record);
    const std::string_view content(bytes + sizeof(EVENTLOGRECORD), record.Length - sizeof(EVENTLOGRECORD));
    return std::hash<std::string_view>()(content) ^ (size_t{record.EventID} << 16) ^ record.EventType;
}

}  // namespace

LOG::LOG(const std::string& log) : name(log), path(LogPath(log)) {
    OpenWriter(writer, log);
    TakeSize();
}

// The setting may be changed at any time. Two writers of one log that went by different sizes would copy all of it
// again and again.
void LOG::TakeSize() {
    logBytes = win32::LogMaxSize(win32::ToUtf16(name));
    maxBatchBytes = std::min<size_t>(256 * 1024, logBytes / 4);  // the writer writes a mebibyte, of a small log half
    writer.SetMaxSize(static_cast<DWORD>(logBytes));
}

void LOG::RecogniseFrom(unsigned long long nextRecord) {
    win32::EVT_READER reader;
    const LOG_NUMBERS log = OpenReaderWithNumbers(reader, name);
    if (log.count == 0 || nextRecord == log.current) return;
    // Beyond the end: the log was cleared since.
    const bool held = nextRecord >= log.oldest && nextRecord < log.current;
    if (reader.Seek(held ? static_cast<DWORD>(nextRecord) : log.oldest, true) != ERROR_SUCCESS) return;
    EachRecord(reader, true, [this](const EVENTLOGRECORD& record) {
        ++known[ContentKey(record)];
        return true;
    });
}

bool LOG::Take(const win32::NEW_EVENT& event, std::string& reason) {
    if (!win32::BuildRecord(event, built)) {
        reason = "larger than a record may be";
        return false;
    }
    const auto& record = *reinterpret_cast<const EVENTLOGRECORD*>(built.data());
    if (Recognise(record)) return true;
    if (gathered && !writer.Append(record)) {
        if (GetLastError() == ERROR_LOG_FILE_FULL) {
            reason = "larger than the log may be";
            return false;
        }
        gathered = false;  // Flush tries again, and reports it
    }
    batch.insert(batch.end(), built.begin(), built.end());
    return true;
}

// What was written before comes first, except records of other feeds among it, which never come.
bool LOG::Recognise(const EVENTLOGRECORD& record) {
    constexpr unsigned most = 100;
    if (known.empty()) return false;
    const auto found = known.find(ContentKey(record));
    if (found == known.end()) {
        if (++missed >= most || IsMarkPressing()) known.clear();
        return false;
    }
    if (--found->second == 0) known.erase(found);
    missed = 0;
    return true;
}

bool LOG::Flush() {
    if (batch.empty()) return true;
    TakeSize();
    for (size_t at = 0; !gathered && at < batch.size();) {
        const auto& each = *reinterpret_cast<const EVENTLOGRECORD*>(batch.data() + at);
        if (!writer.Append(each)) return false;
        at += each.Length;
    }
    gathered = writer.Flush();
    if (!gathered) return false;
    unmarked += batch.size();
    sincePosition += batch.size();
    unlooked += batch.size();
    unsent += batch.size();
    batch.clear();
    if (unsent >= WriteBackBytes) StartWriteBack();
    return true;
}

// The disk writes while more lines are read, and Sync has less to wait for. Where this cannot be had, it waits longer.
void LOG::StartWriteBack() {
    const win32::DESCRIPTOR file(win32::OpenRootFile(path, O_RDONLY));
    if (file) sync_file_range(file.Get(), 0, 0, SYNC_FILE_RANGE_WRITE);
    unsent = 0;
}

double LOG::UnreadShare(DWORD nextRecord) const {
    win32::EVT_READER reader;
    const LOG_NUMBERS log = OpenReaderWithNumbers(reader, name);
    std::error_code none;
    const auto size = static_cast<double>(std::filesystem::file_size(path, none));
    const DWORD next = std::clamp(nextRecord, log.oldest, log.current);
    return log.count == 0 || none ? 0 : size / static_cast<double>(logBytes) * (log.current - next) / log.count;
}

bool LOG::Sync() {
    const win32::DESCRIPTOR file(win32::OpenRootFile(path, O_RDONLY));
    return file && fdatasync(file.Get()) == 0;
}

bool LOG::IsAgents() const { return IsAgentsLog(path); }

DWORD LOG::NextRecord() const {
    win32::EVT_READER reader;
    return OpenReaderWithNumbers(reader, name).current;
}

}  // namespace tools::feed
