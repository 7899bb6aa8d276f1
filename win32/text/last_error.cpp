#include "win32/text/last_error.h"

#include <cerrno>

namespace {

thread_local DWORD lastError = ERROR_SUCCESS;

}  // namespace

DWORD WINAPI GetLastError() { return lastError; }
void WINAPI SetLastError(DWORD code) { lastError = code; }

namespace win32 {

DWORD ErrorFromErrno(int number) {
    switch (number) {
        case 0:
            return ERROR_SUCCESS;
        case ENOENT:
            return ERROR_FILE_NOT_FOUND;
        case ENOTDIR:
            return ERROR_PATH_NOT_FOUND;
        case EMFILE:
        case ENFILE:
            return ERROR_TOO_MANY_OPEN_FILES;
        case EACCES:
        case EPERM:
        case EISDIR:
            return ERROR_ACCESS_DENIED;
        case EBADF:
        case ESRCH:
            return ERROR_INVALID_HANDLE;
        case ENOMEM:
            return ERROR_NOT_ENOUGH_MEMORY;
        case EXDEV:
            return ERROR_NOT_SAME_DEVICE;
        case EROFS:
            return ERROR_WRITE_PROTECT;
        case ENODEV:
        case ENXIO:
            return ERROR_NOT_READY;
        case ETXTBSY:
            return ERROR_SHARING_VIOLATION;
        case EAGAIN:
        case EDEADLK:
        case ENOLCK:
            return ERROR_LOCK_VIOLATION;
        case EOPNOTSUPP:
            return ERROR_NOT_SUPPORTED;
        case ENOSYS:
            return ERROR_CALL_NOT_IMPLEMENTED;
        case EEXIST:
            return ERROR_ALREADY_EXISTS;
        case EINVAL:
        case EDOM:
            return ERROR_INVALID_PARAMETER;
        case EPIPE:
            return ERROR_BROKEN_PIPE;
        case ENOSPC:
        case EDQUOT:
            return ERROR_DISK_FULL;
        case ERANGE:
            return ERROR_INSUFFICIENT_BUFFER;
        case ENOTEMPTY:
            return ERROR_DIR_NOT_EMPTY;
        case EBUSY:
            return ERROR_BUSY;
        case ENAMETOOLONG:
            return ERROR_FILENAME_EXCED_RANGE;
        case ELOOP:
            return ERROR_CANT_ACCESS_FILE;
        case EFBIG:
            return ERROR_FILE_TOO_LARGE;
        case EOVERFLOW:
            return ERROR_MORE_DATA;
        case ETIMEDOUT:
            return WAIT_TIMEOUT;
        case EFAULT:
            return ERROR_NOACCESS;
        case EILSEQ:
            return ERROR_NO_UNICODE_TRANSLATION;
        case EIO:
            return ERROR_IO_DEVICE;
        case ECANCELED:
        case EINTR:
            return ERROR_CANCELLED;
        default:
            return ERROR_GEN_FAILURE;
    }
}

BOOL FailWith(DWORD code) {
    SetLastError(code);
    return FALSE;
}

BOOL FailWithErrno() { return FailWith(ErrorFromErrno(errno)); }

}  // namespace win32
