// Error codes as readable text, fit for messages that end in "%s. Error code = %lu.".
#pragma once

#include "platform/error_code.h"
#include "platform/string.h"

namespace keldwick {

// The system's text for a Windows error code or HRESULT (or the module's, when one is given), without the line breaks
// at its end and without one final period. Empty when there is none. Changes the thread's last error.
STRING ErrorText(DWORD code, HMODULE module = nullptr);
STRING ErrorText(const ERROR_CODE& code);

// The same into a string; false, and the string empty, when there is no text.
bool LoadErrorText(STRING& text, DWORD code, HMODULE module = nullptr);

// The text for a result of the directory interfaces: their own codes' first, then the system's, then a fallback.
STRING DirectoryErrorText(HRESULT result);

}  // namespace keldwick
