// What Windows shows to a debugger or in a box goes to the standard error.
#include <unistd.h>
#include <windows.h>

#include <string>

#include "win32/files/standard_stream.h"
#include "win32/text/utf.h"

// What cannot be written is lost, as without a debugger.
void WINAPI OutputDebugStringW(LPCWSTR text) {
    const DWORD before = GetLastError();
    if (text != nullptr) win32::WriteToStream(STDERR_FILENO, win32::ToUtf8(text));
    SetLastError(before);
}

// Nobody presses a button: the box counts as read.
int WINAPI MessageBoxW(HWND, LPCWSTR text, LPCWSTR caption, UINT) {
    constexpr int okPressed = 1;  // IDOK
    const std::u16string title(caption != nullptr ? caption : u"Error");
    win32::WriteToStream(STDERR_FILENO, win32::ToUtf8(title + u": " + (text != nullptr ? text : u"") + u"\n"));
    return okPressed;
}
