// Names in the file system: move, delete, make folders, ask what is there, search.
#include <fcntl.h>
#include <pwd.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>

#include "win32/files/file_object.h"
#include "win32/files/machine_root.h"
#include "win32/files/own_module.h"
#include "win32/files/root_files.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

bool Exists(const std::u16string& path) {
    return win32::NamesOwnModule(path) ? path.find(u'\\') != path.npos
                                       : access(win32::HostPath(path).c_str(), F_OK) == 0;
}

std::u16string Join(std::u16string folder, std::u16string_view file) {
    if (!folder.empty() && folder.back() != u'\\' && folder.back() != u'/') folder += u'\\';
    return folder.append(file);
}

// Where a program's files are looked for: its own folder, the current one, then PATH with the host's separator.
std::u16string SearchDefault(std::u16string_view file) {
    const std::u16string own = Join(win32::WindowsPath(win32::MachineRoot()), file);
    if (Exists(own)) return own;
    std::error_code error;
    const std::string current = std::filesystem::current_path(error).string();
    const char* path = std::getenv("PATH");
    std::string folders = current + ":" + (path != nullptr ? path : "");
    for (size_t at = 0; at < folders.size();) {
        const size_t end = std::min(folders.find(':', at), folders.size());
        const std::string folder = folders.substr(at, end - at);
        at = end + 1;
        if (folder.empty() || folder[0] != '/') continue;
        const std::u16string candidate = Join(win32::WindowsPath(folder), file);
        if (Exists(candidate)) return candidate;
    }
    return {};
}

std::u16string FullPath(const std::u16string& path) {
    std::error_code error;
    return win32::WindowsPath(std::filesystem::absolute(win32::HostPath(path), error).lexically_normal().string());
}

std::u16string Search(LPCWSTR folders, std::u16string_view file) {
    if (folders == nullptr) {
        if (file.find_first_of(u"\\/") == file.npos) return SearchDefault(file);
        const std::u16string whole(file);
        return Exists(whole) ? FullPath(whole) : std::u16string();
    }
    std::u16string_view rest(folders);
    while (!rest.empty()) {
        const size_t end = std::min(rest.find(u';'), rest.size());
        const std::u16string candidate = FullPath(Join(std::u16string(rest.substr(0, end)), file));
        if (Exists(candidate)) return candidate;
        rest.remove_prefix(std::min(end + 1, rest.size()));
    }
    return {};
}

std::string HomeFolder() {
    const char* home = std::getenv("HOME");
    if (home != nullptr && *home != '\0') return home;
    const struct passwd* account = getpwuid(geteuid());
    return account != nullptr && account->pw_dir != nullptr ? account->pw_dir : "";
}

}  // namespace

BOOL WINAPI MoveFileW(LPCWSTR from, LPCWSTR to) {
    std::string source;
    std::string target;
    if (!win32::ResolvePath(from, source) || !win32::ResolvePath(to, target)) return FALSE;
    const win32::DELETE_ACCESS away(source);
    if (!away) return FALSE;
    return win32::RenameRootFileToFree(source, target) || win32::FailOnPath(target);
}

BOOL WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags) {
    if (flags == 0) return MoveFileW(from, to);
    std::string source;
    std::string target;
    if (flags != MOVEFILE_REPLACE_EXISTING) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!win32::ResolvePath(from, source) || !win32::ResolvePath(to, target)) return FALSE;
    const win32::DELETE_ACCESS away(source);
    if (!away) return FALSE;
    struct stat status;
    std::optional<win32::DELETE_ACCESS> over;
    if (source != target && stat(target.c_str(), &status) == 0) over.emplace(target);
    if (over && (S_ISDIR(status.st_mode) || !*over)) return win32::FailWith(ERROR_ACCESS_DENIED);
    return win32::RenameRootFile(source, target) || win32::FailOnPath(target);
}

BOOL WINAPI DeleteFileW(LPCWSTR path) {
    std::string host;
    if (!win32::ResolvePath(path, host)) return FALSE;
    const win32::DELETE_ACCESS away(host);
    if (!away) return FALSE;
    return win32::RemoveRootFile(host) || win32::FailOnPath(host);
}

BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES) {
    std::string host;
    if (!win32::ResolvePath(path, host)) return FALSE;
    if (win32::MakeRootFolder(host, 0755)) return TRUE;
    return win32::FailWith(errno == ENOENT ? ERROR_PATH_NOT_FOUND : win32::ErrorFromErrno(errno));
}

DWORD WINAPI GetFileAttributesW(LPCWSTR path) {
    std::string host;
    struct stat status;
    if (!win32::ResolvePath(path, host)) return INVALID_FILE_ATTRIBUTES;
    if (stat(host.c_str(), &status) != 0) {
        win32::FailOnPath(host);
        return INVALID_FILE_ATTRIBUTES;
    }
    if (S_ISDIR(status.st_mode)) return FILE_ATTRIBUTE_DIRECTORY;
    const bool writable = (status.st_mode & (S_IWUSR | S_IWGRP | S_IWOTH)) != 0;
    return writable ? FILE_ATTRIBUTE_NORMAL : FILE_ATTRIBUTE_READONLY;
}

DWORD WINAPI SearchPathW(LPCWSTR path, LPCWSTR file, LPCWSTR extension, DWORD units, LPWSTR buffer, LPWSTR* filePart) {
    if (file == nullptr || *file == 0) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    std::u16string name(file);
    const size_t nameStart = name.find_last_of(u"\\/") + 1;  // 0 when there is no folder
    if (extension != nullptr && name.find(u'.', nameStart) == name.npos) name += extension;
    const std::u16string found = Search(path, name);
    if (found.empty()) return static_cast<DWORD>(win32::FailWith(ERROR_FILE_NOT_FOUND));
    if (buffer == nullptr || found.size() >= units) return static_cast<DWORD>(found.size() + 1);
    memcpy(buffer, found.c_str(), (found.size() + 1) * sizeof(WCHAR));
    if (filePart != nullptr) *filePart = buffer + found.find_last_of(u'\\') + 1;
    return static_cast<DWORD>(found.size());
}

// The local application data are $HOME/.local/share. S_FALSE: the folder, which is named all the same, is not there.
HRESULT WINAPI SHGetFolderPathW(HWND, int folder, HANDLE token, DWORD, LPWSTR path) {
    if (path == nullptr || folder != CSIDL_LOCAL_APPDATA) return E_INVALIDARG;
    if (token != nullptr) return E_NOTIMPL;  // another user's folders
    *path = 0;
    const std::string home = HomeFolder();
    if (home.empty() || home[0] != '/') return E_FAIL;
    const std::string host = (std::filesystem::path(home) / ".local/share").lexically_normal().string();
    const std::u16string windows = win32::WindowsPath(host);
    if (windows.size() >= MAX_PATH) return E_FAIL;
    memcpy(path, windows.c_str(), (windows.size() + 1) * sizeof(WCHAR));
    struct stat status;
    return stat(host.c_str(), &status) == 0 && S_ISDIR(status.st_mode) ? S_OK : S_FALSE;
}
