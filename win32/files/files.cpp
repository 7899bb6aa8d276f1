// CreateFileW, WriteFile and GetStdHandle over the host's descriptors.
#include <fcntl.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <string>

#include "win32/files/file_object.h"
#include "win32/files/file_owner.h"
#include "win32/files/machine_root.h"
#include "win32/files/standard_stream.h"
#include "win32/text/last_error.h"

namespace {

// What a successful open reports through the last error besides the handle.
struct OPENED {
    int descriptor = -1;
    bool existed = false;
};

int AccessFlags(DWORD access) {
    const bool reads = (access & (GENERIC_READ | FILE_READ_DATA)) != 0;
    const bool writes = (access & (GENERIC_WRITE | FILE_WRITE_DATA)) != 0;
    const bool appends = (access & FILE_APPEND_DATA) != 0;
    int flags = O_CLOEXEC | O_NOCTTY;
    flags |= !writes && !appends ? O_RDONLY : reads ? O_RDWR : O_WRONLY;
    if (appends && !writes) flags |= O_APPEND;
    return flags;
}

// The machine root is its owner's. Where root works in another user's, it follows no link that this user may have laid,
// and what it makes there is for the owner and his group.
bool IsInMachineRoot(const std::string& path) { return path.starts_with(win32::MachinePath("")); }

// Opens what exists or makes it, and knows which of the two it was although others create and delete meanwhile.
// Nothing is truncated yet. errno says why there is no descriptor.
OPENED OpenFile(const std::string& path, int flags, DWORD disposition) {
    const bool inRoot = IsInMachineRoot(path);
    const mode_t mode = inRoot ? 0640 : 0644;
    if (inRoot && geteuid() == 0) flags |= O_NOFOLLOW;
    constexpr int maxRaces = 100;
    const bool creates = disposition != OPEN_EXISTING && disposition != TRUNCATE_EXISTING;
    for (int race = 0; race < maxRaces; ++race) {
        if (creates) {
            const int made = open(path.c_str(), flags | O_CREAT | O_EXCL, mode);
            if (made >= 0 && inRoot) win32::GiveToFolderOwner(made, path);
            if (made >= 0 || errno != EEXIST || disposition == CREATE_NEW) return {made, false};
        }
        const int found = open(path.c_str(), flags);
        if (found >= 0 || errno != ENOENT || !creates) return {found, true};
    }
    return {};
}

HANDLE NoFile(DWORD error) {
    SetLastError(error);
    return INVALID_HANDLE_VALUE;
}

HANDLE CloseAndFail(int descriptor, DWORD error) {
    close(descriptor);
    return NoFile(error);
}

bool IsValidDisposition(DWORD access, DWORD disposition) {
    if (disposition == TRUNCATE_EXISTING) return (access & (GENERIC_WRITE | FILE_WRITE_DATA)) != 0;
    return disposition >= CREATE_NEW && disposition < TRUNCATE_EXISTING;
}

}  // namespace

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES, DWORD disposition, DWORD,
                          HANDLE) {
    if (!IsValidDisposition(access, disposition)) return NoFile(ERROR_INVALID_PARAMETER);
    std::string host;
    if (!win32::ResolvePath(path, host)) return INVALID_HANDLE_VALUE;

    const OPENED opened = OpenFile(host, AccessFlags(access), disposition);
    if (opened.descriptor < 0) {
        if (errno == EEXIST) return NoFile(ERROR_FILE_EXISTS);
        win32::FailOnPath(host);
        return INVALID_HANDLE_VALUE;
    }
    struct stat status;
    if (fstat(opened.descriptor, &status) != 0) return CloseAndFail(opened.descriptor, ERROR_GEN_FAILURE);
    if (S_ISDIR(status.st_mode)) return CloseAndFail(opened.descriptor, ERROR_ACCESS_DENIED);
    auto sharing = std::make_unique<win32::FILE_SHARE>(status, access, share);
    if (!sharing->Granted()) return CloseAndFail(opened.descriptor, ERROR_SHARING_VIOLATION);
    const bool truncates = opened.existed && (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING);
    if (truncates && ftruncate(opened.descriptor, 0) != 0 && errno != EINVAL)  // EINVAL: a pipe or a device
        return CloseAndFail(opened.descriptor, win32::ErrorFromErrno(errno));

    const HANDLE handle = win32::NewHandle(std::make_shared<win32::FILE_OBJECT>(opened.descriptor, std::move(sharing)));
    const bool tells = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
    SetLastError(tells && opened.existed ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
    return handle;
}

BOOL WINAPI WriteFile(HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written, LPOVERLAPPED overlapped) {
    if (written != nullptr) *written = 0;
    if (overlapped != nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    const auto object = win32::ObjectAs<win32::FILE_OBJECT>(file);
    if (!object) return FALSE;
    const char* next = static_cast<const char*>(bytes);
    if (object->Descriptor() == STDOUT_FILENO) {
        const size_t done = win32::WriteToStream(STDOUT_FILENO, {next, count});
        if (written != nullptr) *written = static_cast<DWORD>(done);
        return done == count || win32::FailWithErrno();
    }
    for (DWORD left = count; left > 0;) {
        const ssize_t done = write(object->Descriptor(), next, left);
        if (done < 0 && errno == EINTR) continue;
        if (done < 0 && errno == EBADF) return win32::FailWith(ERROR_ACCESS_DENIED);  // open, but not for writing
        if (done < 0) return win32::FailWithErrno();
        if (done == 0) return win32::FailWith(ERROR_WRITE_FAULT);
        next += done;
        left -= static_cast<DWORD>(done);
        if (written != nullptr) *written += static_cast<DWORD>(done);
    }
    return TRUE;
}

HANDLE WINAPI GetStdHandle(DWORD which) {
    if (which != STD_OUTPUT_HANDLE) return NoFile(ERROR_INVALID_HANDLE);
    if (fcntl(STDOUT_FILENO, F_GETFD) < 0) return nullptr;  // a process without a console has none
    static const HANDLE output = win32::NewHandle(std::make_shared<win32::FILE_OBJECT>(STDOUT_FILENO, nullptr));
    return output;
}
