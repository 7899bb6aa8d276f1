// The message builder: a list of items is measured, the buffer sized once, and the items written.
#pragma once

#include <windows.h>

#include <initializer_list>
#include <string_view>

#include "platform/heap_buffer.h"

namespace keldwick {

// What an item writes.
enum class PACK_CODE : DWORD {
    SKIP_BYTES = 3,  // n bytes that are left as they are
    TEXT_UNITS = 4,  // UTF-16 units, little-endian, without a terminator
    BYTE_VALUE = 14,
    BYTES = 15,
    WORD_VALUE = 16,
    DWORD_VALUE = 18,
    RECORD_POSITION = 32,  // nothing: stores the position reached
    SKIP_ITEMS = 46        // nothing: leaves out the next n items
};

constexpr DWORD PACK_NETWORK_ORDER =
    0x20000000;  // flag: a 16- or 32-bit value or text units most significant byte first

// One item; make it with the functions below. It borrows what it points to.
struct PACK_ITEM {
    PACK_CODE code;
    DWORD flags = 0;
    size_t length = 0;  // bytes that it takes in the buffer
    DWORD value = 0;
    const void* bytes = nullptr;
    DWORD* position = nullptr;
};

inline PACK_ITEM PackSkip(DWORD count) { return {.code = PACK_CODE::SKIP_BYTES, .length = count}; }
inline PACK_ITEM PackText(std::basic_string_view<WCHAR> text) {
    return {.code = PACK_CODE::TEXT_UNITS, .length = text.size() * sizeof(WCHAR), .bytes = text.data()};
}
inline PACK_ITEM PackByte(BYTE value) {
    return {.code = PACK_CODE::BYTE_VALUE, .length = sizeof(value), .value = value};
}
inline PACK_ITEM PackBytes(const void* bytes, DWORD length) {  // null: none
    return {.code = PACK_CODE::BYTES, .length = bytes != nullptr ? length : 0, .bytes = bytes};
}
inline PACK_ITEM PackWord(WORD value, DWORD flags = 0) {
    return {.code = PACK_CODE::WORD_VALUE, .flags = flags, .length = sizeof(value), .value = value};
}
inline PACK_ITEM PackDword(DWORD value, DWORD flags = 0) {
    return {.code = PACK_CODE::DWORD_VALUE, .flags = flags, .length = sizeof(value), .value = value};
}
inline PACK_ITEM PackPosition(DWORD& position) { return {.code = PACK_CODE::RECORD_POSITION, .position = &position}; }
inline PACK_ITEM PackSkipItems(DWORD count) { return {.code = PACK_CODE::SKIP_ITEMS, .value = count}; }

// Fills the buffer with the items, resizing it to exactly their size. Gives its bytes; null when there are none or
// memory ran out, and then the buffer is empty.
BYTE* PackBuffer(HEAP_BUFFER& buffer, std::initializer_list<PACK_ITEM> items);

}  // namespace keldwick
