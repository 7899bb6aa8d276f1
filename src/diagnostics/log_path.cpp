#include <shlobj.h>

#include "diagnostics/debug_line.h"
#include "diagnostics/log_file.h"

namespace keldwick {
namespace {

constexpr int MaxProbes = 1000;  // names tried for the file that proves the folder writable

bool IsSeparator(WCHAR unit) { return unit == '\\' || unit == '/'; }

// Where the file name begins: after the path's last backslash, or at its start.
size_t NameStart(TEXT_VIEW path) {
    const size_t slash = path.rfind(WCHAR('\\'));
    return slash == TEXT_VIEW::npos ? 0 : slash + 1;
}

STRING WithBackslash(const WCHAR* folder) {
    const TEXT_VIEW view(folder);
    if (!view.empty() && IsSeparator(view.back())) return STRING(view);
    return FormatString(TEXT("%s\\"), folder);
}

void ChooseFolder(STRING& folder, const LOG_PATH_CHOICE& choice, const STRING& module) {
    if (choice.Is(LogPathKeep)) return;
    if (choice.Text() != nullptr) {
        folder = WithBackslash(choice.Text());
    } else if (choice.Is(LogPathLocalAppData)) {
        if (!LocalAppDataPath(folder, TEXT(""))) folder.Clear();
    } else if (choice.Is(LogPathProgram) || choice.Is(LogPathProgramNoExt)) {
        folder.Assign(module.Text(), static_cast<DWORD>(NameStart(module.View())));
    } else {
        folder = STRING();
    }
}

void ChooseBaseName(STRING& name, const LOG_PATH_CHOICE& choice, const STRING& module) {
    if (choice.Is(LogPathKeep)) return;
    if (choice.Text() != nullptr) {
        name.Assign(choice.Text());
    } else if (choice.Is(LogPathProgram) || choice.Is(LogPathProgramNoExt)) {
        TEXT_VIEW file = module.View().substr(NameStart(module.View()));
        if (choice.Is(LogPathProgramNoExt)) file = file.substr(0, file.rfind(WCHAR('.')));
        name.Assign(file);
    } else {
        name.Assign(TEXT("Debug"));
    }
}

void ChooseExtension(STRING& extension, const LOG_PATH_CHOICE& choice) {
    if (choice.Is(LogPathKeep)) return;
    const STRING wanted(choice.Text());
    if (choice.Text() == nullptr || wanted.EqualsNoCase(TEXT("log"))) {
        extension.Assign(TEXT("log"));
    } else if (wanted.EqualsNoCase(TEXT("txt"))) {
        extension.Assign(TEXT("txt"));
    } else {
        extension = wanted;
    }
}

// The log must not be the program file itself.
void AvoidProgramFile(DEBUG_STATE& state, const LOG_PATH_CHOICE& baseName, const STRING& module) {
    if (LogFilePath(state).DiffersNoCase(module)) return;
    LOG_FILE_STATE& log = state.log;
    if (baseName.Is(LogPathProgramNoExt)) {
        ChooseBaseName(log.baseName, LogPathProgram, module);
        if (LogFilePath(state).DiffersNoCase(module)) return;
    }
    log.extension.Assign(log.extension.EqualsNoCase(TEXT("log")) ? TEXT("txt") : TEXT("log"));
}

bool MakeFolder(const STRING& folder) {
    if (folder.IsEmpty() || CreateDirectoryPath(folder.Text())) return true;
    const ERROR_CODE error;
    InternalPrint(TEXT("%s"), FormatError(error, TEXT("Unable to create log directory = \"%s\". \n    "), folder));
    error.Restore();
    return false;
}

// Whether a new file can be made at the path, or beside it when there is one.
bool ProbeFolder(const STRING& path) {
    STRING name = path;
    FILE_OWNER probe;
    for (int attempt = 1;; ++attempt) {
        probe.Reset(CreateFileW(name.Text(), FILE_APPEND_DATA, FILE_SHARE_READ | FILE_SHARE_WRITE, nullptr, CREATE_NEW,
                                FILE_ATTRIBUTE_NORMAL, nullptr));
        if (probe) break;
        if (GetLastError() != ERROR_FILE_EXISTS || attempt == MaxProbes) return false;
        name.Format(TEXT("%s.%lu"), path, attempt);
    }
    probe.Reset();
    if (!DeleteFileW(name.Text())) {
        DebugOutputError(TEXT("%s"), FormatError(ERROR_CODE(), TEXT("Unable to delete \"%s\".\n    "), name));
    }
    return true;
}

// Where the components of the path begin: after its drive, or its server and share. npos: the path has none.
size_t SkipRoot(TEXT_VIEW path) {
    if (path.substr(0, 2) == TEXT("\\\\")) {
        size_t at = 2;
        for (int part = 0; part < 2; ++part) {
            at = path.find_first_of(TEXT("\\/"), at);
            if (at == TEXT_VIEW::npos) return at;
            ++at;
        }
        return at;
    }
    const size_t colon = path.substr(0, path.find_first_of(TEXT("\\/"))).find(WCHAR(':'));
    if (colon == TEXT_VIEW::npos) return 0;
    const size_t at = colon + 1;
    return at < path.size() && IsSeparator(path[at]) ? at + 1 : at;
}

bool MakeDirectory(const STRING& path, LPSECURITY_ATTRIBUTES security) {
    const DWORD attributes = GetFileAttributesW(path.Text());
    if (attributes == INVALID_FILE_ATTRIBUTES) {
        if (GetLastError() != ERROR_FILE_NOT_FOUND) return false;
        return CreateDirectoryW(path.Text(), security) || GetLastError() == ERROR_ALREADY_EXISTS;
    }
    if ((attributes & FILE_ATTRIBUTE_DIRECTORY) != 0) return true;
    SetLastError(ERROR_DIRECTORY);
    return false;
}

bool ChooseLogPath(DEBUG_STATE& state, LOG_PATH_CHOICE folder, LOG_PATH_CHOICE baseName, LOG_PATH_CHOICE extension,
                   HMODULE module) {
    LOG_FILE_STATE& log = state.log;
    STRING program;
    GetModulePath(program, module);
    ChooseFolder(log.folder, folder, program);
    ChooseBaseName(log.baseName, baseName, program);
    ChooseExtension(log.extension, extension);
    AvoidProgramFile(state, baseName, program);
    const STRING path = LogFilePath(state);
    InternalPrint(TEXT("Log path = \"%s\""), path);
    if (!MakeFolder(log.folder)) return false;
    if (log.file && log.openPath.DiffersNoCase(path)) CloseLogFile(state);
    return ProbeFolder(path);
}

}  // namespace

bool SetLogPath(LOG_PATH_CHOICE folder, LOG_PATH_CHOICE baseName, LOG_PATH_CHOICE extension, HMODULE module) {
    DEBUG_STATE& state = DebugState();
    const LOCK_GUARD guard(state.lock);
    bool writable = false;
    if (!WithinMemory([&] { writable = ChooseLogPath(state, folder, baseName, extension, module); }))
        DebuggerPrint(TEXT("Unable to set the log path: not enough memory"));
    return writable;
}

bool CreateDirectoryPath(const WCHAR* path, LPSECURITY_ATTRIBUTES security) {
    const TEXT_VIEW whole(path);
    size_t start = SkipRoot(whole);
    while (start < whole.size()) {
        const size_t end = std::min(whole.find_first_of(TEXT("\\/"), start), whole.size());
        const TEXT_VIEW component = whole.substr(start, end - start);
        const bool passed = component.empty() || component == TEXT(".") || component == TEXT("..");
        if (!passed && !MakeDirectory(STRING(whole.substr(0, end)), security)) return false;
        start = end + 1;
    }
    return true;
}

bool LocalAppDataPath(STRING& path, const WCHAR* name) {
    WCHAR folder[MAX_PATH] = {};
    const HRESULT result = SHGetFolderPathW(nullptr, CSIDL_LOCAL_APPDATA, nullptr, SHGFP_TYPE_CURRENT, folder);
    if (result == S_OK) {
        const TEXT_VIEW view(folder);
        const bool ended = !view.empty() && view.back() == '\\';
        path.Format(TEXT("%s%s%s"), folder, ended ? TEXT("") : TEXT("\\"), name);
        return true;
    }
    const bool notFound = result == E_FAIL || result == S_FALSE;
    SetLastError(notFound ? ERROR_PATH_NOT_FOUND : static_cast<DWORD>(result) & 0xFFFF);
    return false;
}

void GetModulePath(STRING& path, HMODULE module) {
    constexpr DWORD GrowStep = 128;  // units
    STRING buffer(DWORD{MAX_PATH});
    for (;;) {
        const DWORD units = GetModuleFileNameW(module, buffer.Buffer(), buffer.Length());
        if (units == 0) return path.Clear();
        if (units < buffer.Length()) {
            buffer.Resize(units);
            path = std::move(buffer);
            return;
        }
        buffer.Grow(GrowStep);
    }
}

}  // namespace keldwick
