#include "platform/heap_buffer.h"

#include <cstdlib>
#include <cstring>
#include <utility>

namespace keldwick {

HEAP_BUFFER::HEAP_BUFFER(HEAP_BUFFER&& other) noexcept
    : data(std::exchange(other.data, nullptr)), size(std::exchange(other.size, 0)) {}

HEAP_BUFFER& HEAP_BUFFER::operator=(HEAP_BUFFER&& other) noexcept {
    if (this != &other) {
        std::free(data);
        data = std::exchange(other.data, nullptr);
        size = std::exchange(other.size, 0);
    }
    return *this;
}

HEAP_BUFFER::~HEAP_BUFFER() { std::free(data); }

bool HEAP_BUFFER::Resize(DWORD bytes) {
    if (bytes == size) return true;
    if (bytes == 0) {
        Clear();
        return true;
    }
    void* block = std::realloc(data, bytes);
    if (block == nullptr) {
        std::free(data);
        block = std::malloc(bytes);
    }
    data = static_cast<BYTE*>(block);
    size = block != nullptr ? bytes : 0;
    return block != nullptr;
}

bool HEAP_BUFFER::Assign(const void* bytes, DWORD count) {
    if (!Resize(count)) return false;
    if (count != 0) std::memcpy(data, bytes, count);
    return true;
}

void HEAP_BUFFER::Clear() {
    std::free(data);
    data = nullptr;
    size = 0;
}

}  // namespace keldwick
