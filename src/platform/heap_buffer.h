// HEAP_BUFFER: an owned heap block with its size in bytes. It never shrinks or grows by itself.
#pragma once

#include <windows.h>

namespace keldwick {

class HEAP_BUFFER {
public:
    HEAP_BUFFER() = default;
    HEAP_BUFFER(HEAP_BUFFER&& other) noexcept;
    HEAP_BUFFER& operator=(HEAP_BUFFER&& other) noexcept;
    HEAP_BUFFER(const HEAP_BUFFER&) = delete;
    HEAP_BUFFER& operator=(const HEAP_BUFFER&) = delete;
    ~HEAP_BUFFER();

    // Keeps what fits. Where the block cannot be reallocated, a fresh one is tried and the content is lost; false, and
    // the buffer empty, when that fails too. 0 frees the block. New bytes are not initialised.
    [[nodiscard]] bool Resize(DWORD bytes);
    // A copy of those bytes; false, and the buffer empty, when there is no memory. The bytes must not lie in the
    // buffer.
    [[nodiscard]] bool Assign(const void* bytes, DWORD count);
    void Clear();

    BYTE* Data() { return data; }  // null when empty
    const BYTE* Data() const { return data; }
    DWORD Size() const { return size; }
    bool IsEmpty() const { return size == 0; }
    // The block as one object or an array; aligned for any type.
    template <typename TYPE>
    TYPE* As() {
        return reinterpret_cast<TYPE*>(data);
    }
    template <typename TYPE>
    const TYPE* As() const {
        return reinterpret_cast<const TYPE*>(data);
    }

private:
    BYTE* data = nullptr;
    DWORD size = 0;
};

}  // namespace keldwick
