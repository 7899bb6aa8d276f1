// LocalAlloc and LocalFree. Every block is fixed: its handle is its address.
#include <windows.h>

#include <cstdlib>

#include "win32/text/last_error.h"

HLOCAL WINAPI LocalAlloc(UINT flags, SIZE_T bytes) {
    if ((flags & ~static_cast<UINT>(LPTR)) != 0) {
        SetLastError(ERROR_INVALID_PARAMETER);
        return nullptr;
    }
    const SIZE_T size = bytes == 0 ? 1 : bytes;
    void* memory = (flags & LMEM_ZEROINIT) != 0 ? calloc(1, size) : malloc(size);
    if (memory == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return memory;
}

HLOCAL WINAPI LocalFree(HLOCAL memory) {
    free(memory);
    return nullptr;
}
