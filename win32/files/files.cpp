// CreateFileW, WriteFile and GetStdHandle over the host's descriptors.
#include <fcntl.h>
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <mutex>
#include <string>

#include "win32/files/file_object.h"
#include "win32/files/root_files.h"
#include "win32/files/standard_stream.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

int AccessFlags(DWORD access) {
    const bool reads = (access & (GENERIC_READ | FILE_READ_DATA)) != 0;
    const bool writes = (access & (GENERIC_WRITE | FILE_WRITE_DATA)) != 0;
    const bool appends = (access & FILE_APPEND_DATA) != 0;
    int flags = O_CLOEXEC | O_NOCTTY;
    flags |= !writes && !appends ? O_RDONLY : reads ? O_RDWR : O_WRONLY;
    if (appends && !writes) flags |= O_APPEND;
    return flags;
}

// The host's flags; nothing is truncated by the open.
int DispositionFlags(DWORD disposition) {
    if (disposition == CREATE_NEW) return O_CREAT | O_EXCL;
    return disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS ? O_CREAT : 0;
}

// Why a file of the machine root is refused no error code tells.
void ComplainOnce(const std::string& fault) {
    static std::mutex lock;
    static std::string& last = *new std::string;
    const std::lock_guard guard(lock);
    if (fault == last) return;
    last = fault;
    const DWORD error = GetLastError();
    OutputDebugStringW(win32::ToUtf16("Not opened: " + fault + ".\n").c_str());
    SetLastError(error);
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

    bool made = false;
    const mode_t mode = win32::IsInMachineRoot(host) ? 0640 : 0644;  // in a root for its owner and his group
    const int descriptor = win32::OpenRootFile(host, AccessFlags(access) | DispositionFlags(disposition), mode, &made);
    if (descriptor < 0) {
        if (errno == EEXIST) return NoFile(ERROR_FILE_EXISTS);
        const std::string refused = errno == ELOOP ? win32::FileFault(ELOOP) : std::string();
        win32::FailOnPath(host);
        if (!refused.empty()) ComplainOnce(refused);
        return INVALID_HANDLE_VALUE;
    }
    struct stat status;
    if (fstat(descriptor, &status) != 0) return CloseAndFail(descriptor, ERROR_GEN_FAILURE);
    if (S_ISDIR(status.st_mode)) return CloseAndFail(descriptor, ERROR_ACCESS_DENIED);
    auto sharing = std::make_unique<win32::FILE_SHARE>(descriptor, status, access, share);
    if (!sharing->Granted()) return CloseAndFail(descriptor, ERROR_SHARING_VIOLATION);
    const bool truncates = !made && (disposition == CREATE_ALWAYS || disposition == TRUNCATE_EXISTING);
    if (truncates && ftruncate(descriptor, 0) != 0 && errno != EINVAL)  // EINVAL: a pipe or a device
        return CloseAndFail(descriptor, win32::ErrorFromErrno(errno));

    const HANDLE handle = win32::NewHandle(std::make_shared<win32::FILE_OBJECT>(descriptor, std::move(sharing)));
    const bool tells = disposition == CREATE_ALWAYS || disposition == OPEN_ALWAYS;
    SetLastError(tells && !made ? ERROR_ALREADY_EXISTS : ERROR_SUCCESS);
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
