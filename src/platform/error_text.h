// Error codes as readable text, and the end of every message about a failed call.
#pragma once

#include <windows.h>

#include "platform/line_buffer.h"
#include "platform/string.h"

namespace keldwick {

// The code of a failed call, kept while a message about it is built. Take it right after the call, and put it back
// before returning, since building and writing the message may change the thread's last error.
class ERROR_CODE {
public:
    // How a message writes the code, and where its text comes from.
    enum class FORM {
        DECIMAL,
        HEXADECIMAL,
        DIRECTORY  // hexadecimal, with the texts of the directory interfaces
    };

    ERROR_CODE() : code(GetLastError()) {}
    ERROR_CODE(DWORD number, FORM wanted = FORM::DECIMAL)
        : code(number), form(wanted) {}  // NOLINT(google-explicit-constructor)
    static ERROR_CODE FromSockets();     // WSAGetLastError
    static ERROR_CODE FromDirectory(HRESULT result) { return {static_cast<DWORD>(result), FORM::DIRECTORY}; }

    DWORD Get() const { return code; }
    FORM Form() const { return form; }
    void Restore() const { SetLastError(code); }

private:
    DWORD code;
    FORM form = FORM::DECIMAL;
};

// The system's text for a Windows error code or HRESULT (or the module's, when one is given), without the line breaks
// at its end and without one final period. Empty when there is none. Changes the thread's last error.
STRING ErrorText(DWORD code, HMODULE module = nullptr);
STRING ErrorText(const ERROR_CODE& error);  // as its form wants it

// The same into a string; false, and the string empty, when there is no text.
bool LoadErrorText(STRING& text, DWORD code, HMODULE module = nullptr);

// The end of the last message about an error, kept for the next one: what fails for one report fails for the next, too.
struct ERROR_TAIL {
    char text[256];     // "TEXT. Error code = 5."
    size_t length = 0;  // 0: there is none yet
    DWORD code = 0;
    ERROR_CODE::FORM form{};

    bool IsOf(const ERROR_CODE& error) const;
    void Keep(const ERROR_CODE& error, std::string_view tail);  // one that is too long is not kept
};

// The message, completed by the error's text and code: "MESSAGE. TEXT. Error code = 5.". After a message that ends in a
// blank, as the indentation of a new line is one, the text follows at once. Appended to a line (`last`: null, or what
// the caller keeps between such calls), or as a string.
STRING FormatErrorV(const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments);
void AppendError(LINE_BUFFER& line, const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format,
                 FORMAT_ARGUMENTS arguments, ERROR_TAIL* last = nullptr);
template <typename... ARGUMENTS>
STRING FormatError(const ERROR_CODE& error, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    return FormatErrorV(error, format.Text(), FormatArguments(arguments...));
}

// The text for a result of the directory interfaces: their own codes' first, then the system's, then a fallback.
STRING DirectoryErrorText(HRESULT result);

}  // namespace keldwick
