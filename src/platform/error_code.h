// ERROR_CODE: the code of a failed call, kept while a message about it is built. Take it right after the call, and put
// it back before returning, since building and writing the message may change the thread's last error.
#pragma once

#include <windows.h>

namespace keldwick {

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

}  // namespace keldwick
