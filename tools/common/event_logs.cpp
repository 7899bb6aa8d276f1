#include "tools/common/event_logs.h"

#include "tools/common/failure.h"
#include "win32/eventlog/log_names.h"
#include "win32/files/machine_root.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

[[noreturn]] void Fail(const char* act, const std::string& log, DWORD code) {
    FailCommand(std::string("cannot ") + act + " the " + log + " log", code);
}

}  // namespace

std::string LogPath(const std::string& log) {
    const std::string path = win32::LogFile(win32::ToUtf16(log));
    if (path.empty() && GetLastError() == ERROR_FILE_NOT_FOUND)
        throw COMMAND_ERROR("there is no " + log + " log in " + win32::MachineRoot() +
                            " (keldwickctl init makes Security and Application)");
    if (path.empty()) Fail("open", log, GetLastError());
    return path;
}

bool IsAgentsLog(const std::string& path) { return path == AgentsLogPath(); }

std::string AgentsLogPath() { return win32::EventLogPath("Security"); }

void OpenWriter(win32::EVT_WRITER& writer, const std::string& log) {
    if (!writer.Open(LogPath(log), win32::LogMaxSize(win32::ToUtf16(log)))) Fail("open", log, GetLastError());
}

void OpenReader(win32::EVT_READER& reader, const std::string& log) {
    if (!reader.Open(LogPath(log))) Fail("open", log, GetLastError());
}

void ClearLog(const std::string& log) {
    if (!win32::ClearLogFile(LogPath(log), win32::LogMaxSize(win32::ToUtf16(log)))) Fail("clear", log, GetLastError());
}

LOG_NUMBERS OpenReaderWithNumbers(win32::EVT_READER& reader, const std::string& log) {
    constexpr int mostTries = 100;  // a log that is cleared between the two calls is opened again
    LOG_NUMBERS numbers;
    for (int tries = 1;; ++tries) {
        OpenReader(reader, log);
        const DWORD error = reader.Numbers(numbers.current, numbers.oldest, numbers.count);
        if (error == ERROR_SUCCESS) return numbers;
        if (error != ERROR_EVENTLOG_FILE_CHANGED || tries == mostTries) Fail("read", log, error);
    }
}

}  // namespace tools
