#include "protocol/pack_buffer.h"

#include <cstring>

namespace keldwick {

namespace {

bool IsNetworkOrder(const PACK_ITEM& item) { return (item.flags & PACK_NETWORK_ORDER) != 0; }

// The number's lowest `bytes` bytes.
void WriteNumber(BYTE* to, DWORD value, size_t bytes, bool networkOrder) {
    for (size_t i = 0; i < bytes; ++i) {
        const size_t shift = 8 * (networkOrder ? bytes - 1 - i : i);
        to[i] = static_cast<BYTE>(value >> shift);
    }
}

void WriteText(BYTE* to, const PACK_ITEM& item) {
    if (!IsNetworkOrder(item)) {
        std::memcpy(to, item.bytes, item.length);  // this machine is little-endian
        return;
    }
    const WCHAR* const units = static_cast<const WCHAR*>(item.bytes);
    for (size_t i = 0; i < item.length / sizeof(WCHAR); ++i)
        WriteNumber(to + i * sizeof(WCHAR), units[i], sizeof(WCHAR), true);
}

void Write(const BYTE* start, BYTE* to, const PACK_ITEM& item) {
    switch (item.code) {
        case PACK_CODE::TEXT_UNITS:
            if (item.length != 0) WriteText(to, item);
            break;
        case PACK_CODE::BYTES:
            if (item.length != 0) std::memcpy(to, item.bytes, item.length);
            break;
        case PACK_CODE::BYTE_VALUE:
            *to = static_cast<BYTE>(item.value);
            break;
        case PACK_CODE::WORD_VALUE:
        case PACK_CODE::DWORD_VALUE:
            WriteNumber(to, item.value, item.length, IsNetworkOrder(item));
            break;
        case PACK_CODE::RECORD_POSITION:
            *item.position = static_cast<DWORD>(to - start);
            break;
        case PACK_CODE::SKIP_BYTES:
        case PACK_CODE::SKIP_ITEMS:
            break;
    }
}

// Calls the action for every item that is not left out.
template <class ACTION>
void ForEachItem(std::initializer_list<PACK_ITEM> items, ACTION action) {
    for (const PACK_ITEM* item = items.begin(); item < items.end(); ++item) {
        if (item->code != PACK_CODE::SKIP_ITEMS) {
            action(*item);
        } else if (item->value >= static_cast<size_t>(items.end() - item)) {
            return;
        } else {
            item += item->value;
        }
    }
}

}  // namespace

BYTE* PackBuffer(HEAP_BUFFER& buffer, std::initializer_list<PACK_ITEM> items) {
    size_t size = 0;
    ForEachItem(items, [&](const PACK_ITEM& item) { size += item.length; });
    if (size > MAXDWORD || !buffer.Resize(static_cast<DWORD>(size))) {
        buffer.Clear();
        return nullptr;
    }
    BYTE* const start = buffer.Data();
    BYTE* to = start;
    ForEachItem(items, [&](const PACK_ITEM& item) {
        Write(start, to, item);
        to += item.length;
    });
    return start;
}

}  // namespace keldwick
