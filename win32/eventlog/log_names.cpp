#include "win32/eventlog/log_names.h"

#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <vector>

#include "win32/eventlog/evt_format.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr size_t MaxNameBytes = 200;  // with the extension within the host's 255

bool IsLogName(const std::string& name) {
    return !name.empty() && name.size() <= MaxNameBytes && name[0] != '.' &&
           name.find_first_of(std::string_view("/\\:\0", 4)) == std::string::npos;
}

// Whether the text names a file rather than a log: it begins with two back slashes or has a drive's colon.
bool IsLogPath(std::u16string_view name) {
    return name.size() >= 2 && ((name[0] == u'\\' && name[1] == u'\\') || name[1] == u':');
}

// The name of the log's file whose letters differ in case only; empty when there is none, last error set.
std::string FoldedMatch(std::u16string_view name) {
    std::string match;
    std::vector<std::string> names;
    SetLastError(ListRootFolder(MachinePath(EventLogFolder), names) ? ERROR_FILE_NOT_FOUND : ErrorFromErrno(errno));
    for (std::string_view file : names) {
        if (!file.ends_with(EventLogExtension)) continue;
        file.remove_suffix(EventLogExtension.size());
        if (SameName(ToUtf16(file), name) && (match.empty() || file < match)) match = file;
    }
    return match;
}

}  // namespace

std::string LogFile(std::u16string_view name) {
    if (IsLogPath(name)) return HostPath(name);
    const std::string plain = ToUtf8(name);
    if (!IsLogName(plain)) {
        SetLastError(ERROR_INVALID_NAME);
        return {};
    }
    if (access(EventLogPath(plain).c_str(), F_OK) == 0 || errno != ENOENT) return EventLogPath(plain);
    const std::string match = FoldedMatch(name);
    return match.empty() ? std::string() : EventLogPath(match);
}

std::string NewLogFile(std::u16string_view name) {
    const std::string plain = ToUtf8(name);
    if (!IsLogName(plain)) {
        SetLastError(ERROR_INVALID_NAME);
        return {};
    }
    if (!MakeRootFolder(MachinePath(EventLogFolder), 0755) && errno != EEXIST) {
        FailWithErrno();
        return {};
    }
    const std::string there = LogFile(name);
    return there.empty() ? EventLogPath(plain) : there;
}

unsigned LogMaxSize(std::u16string_view name) {
    const std::u16string path = u"SYSTEM\\CurrentControlSet\\services\\EventLog\\" + std::u16string(name);
    HKEY key;
    if (RegOpenKeyExW(HKEY_LOCAL_MACHINE, path.c_str(), 0, KEY_READ, &key) != ERROR_SUCCESS) return DefaultMaxSize;
    DWORD value = 0, type = REG_NONE, bytes = sizeof(value);
    const LSTATUS error = RegQueryValueExW(key, u"MaxSize", nullptr, &type, reinterpret_cast<BYTE*>(&value), &bytes);
    RegCloseKey(key);
    return error == ERROR_SUCCESS && type == REG_DWORD && value != 0 ? value : DefaultMaxSize;
}

}  // namespace win32
