#include "diagnostics/log_file.h"

#include "platform/error_text.h"

namespace keldwick {
namespace {

constexpr int MaxRenameAttempts = 999;  // after the one without a number
constexpr int MaxFirstOpens = 1000;     // bound on creating anew while somebody else keeps making the file

FILE_HANDLE Create(const STRING& path, DWORD disposition) {
    return FILE_HANDLE(CreateFileW(path.Text(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr,
                                   disposition, FILE_FLAG_WRITE_THROUGH | FILE_ATTRIBUTE_NORMAL, nullptr));
}

FILE_HANDLE NotCreated(const STRING& path) {
    const ERROR_CODE error;
    DebugOutputError(TEXT("Unable to create log file \"%s\". %s. Error code = %lu.\n    "), path, ErrorText(error),
                     error.Get());
    return FILE_HANDLE();
}

// Opens or makes the file; the message names what an existing file went through.
FILE_HANDLE OpenOrCreate(const STRING& path, DWORD disposition, const WCHAR* existing) {
    SetLastError(ERROR_SUCCESS);
    FILE_HANDLE file = Create(path, disposition);
    if (!file) return NotCreated(path);
    const bool existed = GetLastError() == ERROR_ALREADY_EXISTS;
    InternalPrint(TEXT("Log file \"%s\" %s"), path, existed ? existing : TEXT("created"));
    return file;
}

// The first open in the mode "Rename existing".
FILE_HANDLE CreateRenaming(const DEBUG_STATE& state, const STRING& path) {
    for (int attempt = 0; attempt < MaxFirstOpens; ++attempt) {
        FILE_HANDLE file = Create(path, CREATE_NEW);
        if (file) {
            InternalPrint(TEXT("Log file \"%s\" created"), path);
            return file;
        }
        if (GetLastError() != ERROR_FILE_EXISTS) break;
        if (!RenameLogFile(state, path, nullptr)) return FILE_HANDLE();
    }
    return NotCreated(path);
}

FILE_HANDLE FirstOpen(const DEBUG_STATE& state, const STRING& path) {
    if ((state.mode & DEBUG_MODE_RENAME) != 0) return CreateRenaming(state, path);
    if ((state.mode & DEBUG_MODE_OVERWRITE) != 0) return OpenOrCreate(path, CREATE_ALWAYS, TEXT("overwritten"));
    return OpenOrCreate(path, OPEN_ALWAYS, TEXT("opened"));
}

STRING NameStamp(const SYSTEMTIME& time) {
    if (time.wMinute != 0 || time.wSecond != 0) {
        return FormatString(TEXT("%04u-%02u-%02u@%02u_%02u_%02u"), time.wYear, time.wMonth, time.wDay, time.wHour,
                            time.wMinute, time.wSecond);
    }
    if (time.wHour != 0) {
        return FormatString(TEXT("%04u-%02u-%02u@%02u"), time.wYear, time.wMonth, time.wDay, time.wHour);
    }
    return FormatString(TEXT("%04u-%02u-%02u"), time.wYear, time.wMonth, time.wDay);
}

STRING PathOf(const LOG_FILE_STATE& log, const STRING& name) {
    return FormatString(TEXT("%s%s%s%s"), log.folder, name, log.extension.IsEmpty() ? TEXT("") : TEXT("."),
                        log.extension);
}

STRING RenamedPath(const LOG_FILE_STATE& log, const STRING& stamp, int attempt) {
    const STRING number = attempt == 0 ? STRING() : FormatString(TEXT("#%03u"), attempt);
    return PathOf(log, FormatString(TEXT("%s_%s%s"), log.baseName, stamp, number));
}

}  // namespace

STRING LogFilePath(const DEBUG_STATE& state) { return PathOf(state.log, state.log.baseName); }

bool OpenLogFile(DEBUG_STATE& state) {
    LOG_FILE_STATE& log = state.log;
    if (log.file) return true;
    STRING path = LogFilePath(state);
    const bool first = log.firstOpen;
    log.firstOpen = false;
    log.file = first ? FirstOpen(state, path) : OpenOrCreate(path, OPEN_ALWAYS, TEXT("opened"));
    if (log.file) log.openPath = std::move(path);
    return static_cast<bool>(log.file);
}

void CloseLogFile(DEBUG_STATE& state) {
    state.log.file.Reset();
    state.log.openPath.Clear();
}

void WriteLogFile(DEBUG_STATE& state, std::string_view bytes) {
    const auto count = static_cast<DWORD>(bytes.size());
    DWORD written = 0;
    if (WriteFile(state.log.file.Get(), bytes.data(), count, &written, nullptr)) return;
    const ERROR_CODE error;
    DebugOutputError(TEXT("Unable to write %lu bytes to log file. %s. Error code = %lu."), count, ErrorText(error),
                     error.Get());
}

bool RenameLogFile(const DEBUG_STATE& state, const STRING& path, const SYSTEMTIME* time) {
    SYSTEMTIME now;
    if (time == nullptr) {
        GetLocalTime(&now);
        time = &now;
    }
    const STRING stamp = NameStamp(*time);
    for (int attempt = 0;; ++attempt) {
        const STRING renamed = RenamedPath(state.log, stamp, attempt);
        if (MoveFileW(path.Text(), renamed.Text())) {
            InternalPrint(TEXT("Log path \"%s\" renamed to\n    \"%s\""), path, renamed);
            return true;
        }
        if (GetLastError() == ERROR_ALREADY_EXISTS && attempt < MaxRenameAttempts) continue;
        DebugOutputError(TEXT("Name collision renaming log path \"%s\" to\n    \"%s\""), path, renamed);
        return false;
    }
}

}  // namespace keldwick
