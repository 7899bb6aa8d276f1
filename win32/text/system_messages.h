// The system's own message table: what Windows says, in English, for error codes, Winsock codes and HRESULTs.
#pragma once

#include <windows.h>

namespace win32 {

// The text without its final line break, or null when the system has none. HRESULTs that carry a Windows error code
// (0x8007xxxx) have the text of that code unless they have one of their own.
const char16_t* SystemMessage(DWORD code);

}  // namespace win32
