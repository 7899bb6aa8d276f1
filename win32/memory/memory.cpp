// Memory by the block and by the page.
#include <sys/mman.h>
#include <unistd.h>
#include <windows.h>

#include <cstdint>
#include <cstdlib>

#include "win32/text/last_error.h"

namespace {

constexpr size_t HugePage = size_t{2} << 20;

size_t PageSize() {
    static const auto size = static_cast<size_t>(sysconf(_SC_PAGESIZE));
    return size;
}

}  // namespace

// Every block is fixed: its handle is its address.
HLOCAL WINAPI LocalAlloc(UINT flags, SIZE_T bytes) {
    if ((flags & ~static_cast<UINT>(LPTR)) != 0) return win32::NullWith(ERROR_INVALID_PARAMETER);
    const SIZE_T size = bytes == 0 ? 1 : bytes;
    void* memory = (flags & LMEM_ZEROINIT) != 0 ? calloc(1, size) : malloc(size);
    if (memory == nullptr) SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return memory;
}

HLOCAL WINAPI LocalFree(HLOCAL memory) {
    free(memory);
    return nullptr;
}

// Before each area lies a page with the length of both. The kernel is asked for huge pages in a large area, and each
// must begin at a multiple of its size. What the mapping has beside that is given back.
LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection) {
    if (address != nullptr || bytes == 0 || type != (MEM_RESERVE | MEM_COMMIT) || protection != PAGE_READWRITE) {
        return win32::NullWith(ERROR_INVALID_PARAMETER);
    }
    const size_t page = PageSize();
    const size_t alignment = bytes >= HugePage ? HugePage : page;
    if (bytes > SIZE_MAX / 2) return win32::NullWith(ERROR_NOT_ENOUGH_MEMORY);
    const size_t length = (bytes + page - 1) / page * page;
    const size_t reserved = alignment + length;
    void* const mapping = mmap(nullptr, reserved, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
    if (mapping == MAP_FAILED) return win32::NullWith(ERROR_NOT_ENOUGH_MEMORY);

    const auto begin = reinterpret_cast<uintptr_t>(mapping);
    const uintptr_t area = (begin + page + alignment - 1) / alignment * alignment;
    const uintptr_t header = area - page;
    if (header > begin) munmap(mapping, header - begin);
    if (begin + reserved > area + length)
        munmap(reinterpret_cast<void*>(area + length), begin + reserved - area - length);
    *reinterpret_cast<size_t*>(header) = page + length;
    if (bytes >= HugePage) madvise(reinterpret_cast<void*>(area), length, MADV_HUGEPAGE);  // an advice: may do nothing
    return reinterpret_cast<void*>(area);
}

BOOL WINAPI VirtualFree(LPVOID address, SIZE_T bytes, DWORD type) {
    const size_t page = PageSize();
    if (address == nullptr || reinterpret_cast<uintptr_t>(address) % page != 0 || bytes != 0 || type != MEM_RELEASE) {
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    }
    void* const header = static_cast<BYTE*>(address) - page;
    return munmap(header, *static_cast<size_t*>(header)) == 0 ? TRUE : win32::FailWithErrno();
}
