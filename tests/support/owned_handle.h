// A handle that is closed with the test's scope.
#pragma once

#include <windows.h>

struct OWNED_HANDLE {
    OWNED_HANDLE(HANDLE owned) : handle(owned) {}
    OWNED_HANDLE(OWNED_HANDLE&&) = delete;
    ~OWNED_HANDLE() { CloseHandle(handle); }
    operator HANDLE() const { return handle; }
    HANDLE handle;
};
