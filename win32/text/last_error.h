// The one place that turns errno into Windows error codes, and the short way to leave a call with one.
#pragma once

#include <windows.h>

#include <cstddef>

namespace win32 {

// The Windows code for an errno value; ERROR_GEN_FAILURE for one that has no counterpart.
DWORD ErrorFromErrno(int number);

// Sets the thread's last error and returns false: "return FailWith(ERROR_INVALID_HANDLE);".
BOOL FailWith(DWORD code);

// The same with the current errno.
BOOL FailWithErrno();

// The same for calls that give a pointer or a handle.
inline std::nullptr_t NullWith(DWORD code) {
    SetLastError(code);
    return nullptr;
}

}  // namespace win32
