// COM strings: UTF-16 units behind their length in bytes, with a terminator that the length does not count.
#include <oleauto.h>

#include <cstdlib>
#include <cstring>
#include <string>

namespace {

constexpr size_t Prefix = 8;  // its last four bytes are the length; eight keep the text aligned
constexpr UINT MaxUnits = 0x7FFFFFEF / sizeof(OLECHAR);

BYTE* BlockOf(BSTR text) { return reinterpret_cast<BYTE*>(text) - Prefix; }

}  // namespace

// Null: no memory. A null text gives that many zeros.
BSTR WINAPI SysAllocStringLen(const OLECHAR* text, UINT units) {
    if (units > MaxUnits) return nullptr;
    const DWORD bytes = units * static_cast<DWORD>(sizeof(OLECHAR));
    BYTE* block = static_cast<BYTE*>(calloc(1, Prefix + bytes + sizeof(OLECHAR)));
    if (block == nullptr) return nullptr;
    memcpy(block + Prefix - sizeof(bytes), &bytes, sizeof(bytes));
    if (text != nullptr && bytes != 0) memcpy(block + Prefix, text, bytes);
    return reinterpret_cast<BSTR>(block + Prefix);
}

BSTR WINAPI SysAllocString(const OLECHAR* text) {
    if (text == nullptr) return nullptr;
    const size_t units = std::char_traits<OLECHAR>::length(text);
    return units > MaxUnits ? nullptr : SysAllocStringLen(text, static_cast<UINT>(units));
}

void WINAPI SysFreeString(BSTR text) {
    if (text != nullptr) free(BlockOf(text));
}

UINT WINAPI SysStringLen(BSTR text) {
    if (text == nullptr) return 0;
    DWORD bytes;
    memcpy(&bytes, BlockOf(text) + Prefix - sizeof(bytes), sizeof(bytes));
    return bytes / static_cast<UINT>(sizeof(OLECHAR));
}
