// ERROR_CODE: a Windows error code kept while a message about it is built. Take it right after the failing call, and
// put it back before returning, since building and writing the message may change the thread's last error.
#pragma once

#include <windows.h>

namespace keldwick {

class ERROR_CODE {
public:
    ERROR_CODE() : code(GetLastError()) {}
    explicit ERROR_CODE(DWORD number) : code(number) {}
    static ERROR_CODE FromSockets();  // WSAGetLastError

    DWORD Get() const { return code; }
    void Restore() const { SetLastError(code); }

private:
    DWORD code;
};

}  // namespace keldwick
