// What a call of the Windows interface says of itself, in one value that a test can compare.
#pragma once

#include <windows.h>

// 0 for a call that succeeded, else its last error.
inline DWORD ErrorOf(bool succeeded) { return succeeded ? 0 : GetLastError(); }
