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
    DWORD code;  // a PACK_CODE and flags
    DWORD value = 0;
    const void* bytes = nullptr;
    DWORD length = 0;  // of bytes, in bytes; in UTF-16 units for a text
    DWORD* position = nullptr;
};

PACK_ITEM PackSkip(DWORD count);
PACK_ITEM PackText(std::basic_string_view<WCHAR> text);
PACK_ITEM PackByte(BYTE value);
PACK_ITEM PackBytes(const void* bytes, DWORD length);  // null: none
PACK_ITEM PackWord(WORD value, DWORD flags = 0);
PACK_ITEM PackDword(DWORD value, DWORD flags = 0);
PACK_ITEM PackPosition(DWORD& position);
PACK_ITEM PackSkipItems(DWORD count);

// Fills the buffer with the items, resizing it to exactly their size. Gives its bytes; null when there are none or
// memory ran out, and then the buffer is empty.
BYTE* PackBuffer(HEAP_BUFFER& buffer, std::initializer_list<PACK_ITEM> items);

}  // namespace keldwick
