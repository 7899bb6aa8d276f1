// Where files are: the search for a program's files, and the user's folders.
#include <pwd.h>
#include <shlobj.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <sstream>
#include <string>

#include "win32/files/machine_root.h"
#include "win32/files/own_module.h"
#include "win32/text/last_error.h"

namespace {

bool Exists(const std::u16string& path) {
    return win32::NamesOwnModule(path) ? path.find(u'\\') != path.npos
                                       : access(win32::HostPath(path).c_str(), F_OK) == 0;
}

// A program's files are looked for in its own folder, the current one, and PATH with the host's separator.
std::u16string Search(std::u16string file) {
    std::error_code error;
    const std::string current = std::filesystem::current_path(error).string();
    if (file.find_first_of(u"\\/") != file.npos) {
        if (!Exists(file)) return {};
        return win32::WindowsPath(std::filesystem::absolute(win32::HostPath(file), error).lexically_normal().string());
    }
    const char* path = std::getenv("PATH");
    std::istringstream folders(win32::MachineRoot() + ":" + current + ":" + (path != nullptr ? path : ""));
    for (std::string folder; std::getline(folders, folder, ':');) {
        const std::u16string candidate = win32::WindowsPath(folder + (folder.ends_with('/') ? "" : "/")) + file;
        if (folder.starts_with('/') && Exists(candidate)) return candidate;
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

// Without a list of folders and without an extension to add; a name with a folder in it is looked for there alone.
DWORD WINAPI SearchPathW(LPCWSTR folders, LPCWSTR file, LPCWSTR extension, DWORD units, LPWSTR buffer,
                         LPWSTR* filePart) {
    if (file == nullptr || *file == 0) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    if (folders != nullptr || extension != nullptr) return static_cast<DWORD>(win32::FailWith(ERROR_NOT_SUPPORTED));
    const std::u16string found = Search(file);
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
