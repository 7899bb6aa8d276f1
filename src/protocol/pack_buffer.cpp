#include "protocol/pack_buffer.h"

#include <cstring>

namespace keldwick {

namespace {

constexpr DWORD CodeMask = 0x00FFFFFF;  // of an item's code; above it lie the flags

PACK_CODE CodeOf(const PACK_ITEM& item) { return static_cast<PACK_CODE>(item.code & CodeMask); }
bool IsNetworkOrder(const PACK_ITEM& item) { return (item.code & PACK_NETWORK_ORDER) != 0; }

DWORD CodeWith(PACK_CODE code, DWORD flags = 0) { return static_cast<DWORD>(code) | flags; }

// The number's lowest `bytes` bytes.
BYTE* WriteNumber(BYTE* to, DWORD value, DWORD bytes, bool networkOrder) {
    for (DWORD i = 0; i < bytes; ++i) {
        const DWORD shift = 8 * (networkOrder ? bytes - 1 - i : i);
        to[i] = static_cast<BYTE>(value >> shift);
    }
    return to + bytes;
}

ULONGLONG SizeOf(const PACK_ITEM& item) {
    switch (CodeOf(item)) {
        case PACK_CODE::SKIP_BYTES:
            return item.value;
        case PACK_CODE::TEXT_UNITS:
            return static_cast<ULONGLONG>(item.length) * sizeof(WCHAR);
        case PACK_CODE::BYTES:
            return item.bytes != nullptr ? item.length : 0;
        case PACK_CODE::BYTE_VALUE:
            return sizeof(BYTE);
        case PACK_CODE::WORD_VALUE:
            return sizeof(WORD);
        case PACK_CODE::DWORD_VALUE:
            return sizeof(DWORD);
        case PACK_CODE::RECORD_POSITION:
        case PACK_CODE::SKIP_ITEMS:
            break;
    }
    return 0;
}

BYTE* WriteText(BYTE* to, const PACK_ITEM& item) {
    const WCHAR* const units = static_cast<const WCHAR*>(item.bytes);
    if (IsNetworkOrder(item)) {
        for (DWORD i = 0; i < item.length; ++i) to = WriteNumber(to, units[i], sizeof(WCHAR), true);
        return to;
    }
    if (item.length != 0) std::memcpy(to, units, item.length * sizeof(WCHAR));  // this machine is little-endian
    return to + item.length * sizeof(WCHAR);
}

BYTE* Write(BYTE* start, BYTE* to, const PACK_ITEM& item) {
    switch (CodeOf(item)) {
        case PACK_CODE::SKIP_BYTES:
            return to + item.value;
        case PACK_CODE::TEXT_UNITS:
            return WriteText(to, item);
        case PACK_CODE::BYTES:
            if (item.bytes == nullptr || item.length == 0) return to;
            std::memcpy(to, item.bytes, item.length);
            return to + item.length;
        case PACK_CODE::BYTE_VALUE:
        case PACK_CODE::WORD_VALUE:
        case PACK_CODE::DWORD_VALUE:
            return WriteNumber(to, item.value, static_cast<DWORD>(SizeOf(item)), IsNetworkOrder(item));
        case PACK_CODE::RECORD_POSITION:
            *item.position = static_cast<DWORD>(to - start);
            break;
        case PACK_CODE::SKIP_ITEMS:
            break;
    }
    return to;
}

// Calls the action for every item that is not left out.
template <class ACTION>
void ForEachItem(std::initializer_list<PACK_ITEM> items, ACTION action) {
    for (const PACK_ITEM* item = items.begin(); item < items.end(); ++item) {
        if (CodeOf(*item) != PACK_CODE::SKIP_ITEMS) {
            action(*item);
        } else if (item->value >= static_cast<size_t>(items.end() - item)) {
            return;
        } else {
            item += item->value;
        }
    }
}

}  // namespace

PACK_ITEM PackSkip(DWORD count) { return {.code = CodeWith(PACK_CODE::SKIP_BYTES), .value = count}; }
PACK_ITEM PackText(std::basic_string_view<WCHAR> text) {
    return {.code = CodeWith(PACK_CODE::TEXT_UNITS), .bytes = text.data(), .length = static_cast<DWORD>(text.size())};
}
PACK_ITEM PackByte(BYTE value) { return {.code = CodeWith(PACK_CODE::BYTE_VALUE), .value = value}; }
PACK_ITEM PackBytes(const void* bytes, DWORD length) {
    return {.code = CodeWith(PACK_CODE::BYTES), .bytes = bytes, .length = length};
}
PACK_ITEM PackWord(WORD value, DWORD flags) { return {.code = CodeWith(PACK_CODE::WORD_VALUE, flags), .value = value}; }
PACK_ITEM PackDword(DWORD value, DWORD flags) {
    return {.code = CodeWith(PACK_CODE::DWORD_VALUE, flags), .value = value};
}
PACK_ITEM PackPosition(DWORD& position) {
    return {.code = CodeWith(PACK_CODE::RECORD_POSITION), .position = &position};
}
PACK_ITEM PackSkipItems(DWORD count) { return {.code = CodeWith(PACK_CODE::SKIP_ITEMS), .value = count}; }

BYTE* PackBuffer(HEAP_BUFFER& buffer, std::initializer_list<PACK_ITEM> items) {
    ULONGLONG size = 0;
    ForEachItem(items, [&](const PACK_ITEM& item) { size += SizeOf(item); });
    if (size > MAXDWORD || !buffer.Resize(static_cast<DWORD>(size))) {
        buffer.Clear();
        return nullptr;
    }
    BYTE* const start = buffer.Data();
    BYTE* to = start;
    ForEachItem(items, [&](const PACK_ITEM& item) { to = Write(start, to, item); });
    return start;
}

}  // namespace keldwick
