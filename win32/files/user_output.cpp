// What Windows shows to a debugger or in a box goes to the standard error.
#include <unistd.h>
#include <windows.h>

#include <cerrno>
#include <string>

#include "win32/text/utf.h"

namespace {

// One write for the whole text where the descriptor takes it; what cannot be written is lost, as without a debugger.
void WriteToStandardError(const std::string& text) {
    for (size_t at = 0; at < text.size();) {
        const ssize_t done = write(STDERR_FILENO, text.data() + at, text.size() - at);
        if (done < 0 && errno == EINTR) continue;
        if (done <= 0) return;
        at += static_cast<size_t>(done);
    }
}

}  // namespace

void WINAPI OutputDebugStringW(LPCWSTR text) {
    const DWORD before = GetLastError();
    if (text != nullptr) WriteToStandardError(win32::ToUtf8(text));
    SetLastError(before);
}

// Nobody presses a button: the box counts as read.
int WINAPI MessageBoxW(HWND, LPCWSTR text, LPCWSTR caption, UINT) {
    constexpr int okPressed = 1;  // IDOK
    const std::u16string title(caption != nullptr ? caption : u"Error");
    WriteToStandardError(win32::ToUtf8(title + u": " + (text != nullptr ? text : u"") + u"\n"));
    return okPressed;
}
