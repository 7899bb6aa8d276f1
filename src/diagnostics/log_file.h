// The log file: where it lies, and its daily renaming. The debug output opens and writes it.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

// ---- Its path (log_path.cpp) ----

// One part of the log's path: a numbered choice, or a text of its own.
class LOG_PATH_CHOICE {
public:
    LOG_PATH_CHOICE(DWORD choice) : code(choice) {}                               // NOLINT(google-explicit-constructor)
    LOG_PATH_CHOICE(int choice) : LOG_PATH_CHOICE(static_cast<DWORD>(choice)) {}  // NOLINT(google-explicit-constructor)
    LOG_PATH_CHOICE(const WCHAR* given) : code(Given), text(given) {}             // NOLINT(google-explicit-constructor)
    bool Is(DWORD choice) const { return code == choice; }
    const WCHAR* Text() const { return text; }  // null for a numbered choice

private:
    static constexpr DWORD Given = MAXDWORD;
    DWORD code;
    const WCHAR* text = nullptr;
};

constexpr DWORD LogPathDefault = 0;       // the current folder, "Debug", "log"
constexpr DWORD LogPathKeep = 1;          // as it is
constexpr DWORD LogPathProgram = 2;       // the program's folder; the program's name with its extension
constexpr DWORD LogPathProgramNoExt = 3;  // as a base name: the program's name without its extension
constexpr DWORD LogPathLocalAppData = 4;  // as a folder: the local application data

// Chooses the log file: true when its folder exists (or was made) and can be written to; false, too, when there is no
// memory for the choice. The file itself is opened by the first line; one that is open elsewhere is closed.
bool SetLogPath(LOG_PATH_CHOICE folder, LOG_PATH_CHOICE baseName, LOG_PATH_CHOICE extension, HMODULE module = nullptr);

// Makes every folder of the path that does not exist; true when all exist. False: the last error says why.
bool CreateDirectoryPath(const WCHAR* path, LPSECURITY_ATTRIBUTES security = nullptr);
// The local application-data folder, a backslash and the name. False: the last error says why, `path` is untouched.
bool LocalAppDataPath(STRING& path, const WCHAR* name);
void GetModulePath(STRING& path, HMODULE module = nullptr);  // the program file's full path; empty on failure

// ---- Its daily renaming: each period's lines end up in a file named after the time at which the period began ----

// Renames the log file every `days` days at that hour of the local time, on a thread of its own; called again, it
// changes the schedule. Hour 0 names a file after the day that it covers.
void StartLogRename(DWORD hour, DWORD days);
// Ends the thread (at process end); waits for it at most 10 s.
void StopLogRename();

}  // namespace keldwick
