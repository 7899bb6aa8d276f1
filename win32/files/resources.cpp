// Resources of the own module: the string table as blocks of sixteen counted strings, as a resource compiler makes
// them.
#include <windows.h>

#include <map>
#include <string_view>
#include <vector>

#include "resources/resource_tables.h"
#include "win32/files/own_module.h"
#include "win32/text/last_error.h"

namespace {

constexpr unsigned StringsInBlock = 16;

using STRING_BLOCK = std::vector<WCHAR>;

// Block n holds the strings (n - 1) * 16 to n * 16 - 1; an absent one has a count of 0.
std::map<ULONG_PTR, STRING_BLOCK> MakeBlocks() {
    std::map<ULONG_PTR, std::vector<std::u16string_view>> strings;
    for (const keldwick::RESOURCE_STRING& string : keldwick::StringTable()) {
        auto& block = strings[string.id / StringsInBlock + 1];
        block.resize(StringsInBlock);
        block[string.id % StringsInBlock] = string.text;
    }
    std::map<ULONG_PTR, STRING_BLOCK> blocks;
    for (const auto& [number, texts] : strings) {
        STRING_BLOCK& block = blocks[number];
        for (const std::u16string_view text : texts) {
            block.push_back(static_cast<WCHAR>(text.size()));
            block.insert(block.end(), text.begin(), text.end());
        }
    }
    return blocks;
}

// Made once, never destroyed: what LockResource gives stays valid to the process's last moment.
std::map<ULONG_PTR, STRING_BLOCK>& Blocks() {
    static auto& blocks = *new std::map<ULONG_PTR, STRING_BLOCK>(MakeBlocks());
    return blocks;
}

HRSRC NoResource(DWORD error) {
    SetLastError(error);
    return nullptr;
}

STRING_BLOCK* BlockOf(HMODULE module, HRSRC resource) {
    if (win32::IsOwnModule(module) && resource != nullptr) return reinterpret_cast<STRING_BLOCK*>(resource);
    SetLastError(ERROR_INVALID_HANDLE);
    return nullptr;
}

}  // namespace

HRSRC WINAPI FindResourceW(HMODULE module, LPCWSTR name, LPCWSTR type) {
    if (!win32::IsOwnModule(module)) return NoResource(ERROR_RESOURCE_DATA_NOT_FOUND);
    if (type != RT_STRING) return NoResource(ERROR_RESOURCE_TYPE_NOT_FOUND);
    const auto block = Blocks().find(reinterpret_cast<ULONG_PTR>(name));
    if (block == Blocks().end()) return NoResource(ERROR_RESOURCE_NAME_NOT_FOUND);
    return reinterpret_cast<HRSRC>(&block->second);
}

HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC resource) {
    STRING_BLOCK* block = BlockOf(module, resource);
    return block != nullptr ? block->data() : nullptr;
}

LPVOID WINAPI LockResource(HGLOBAL data) { return data; }

DWORD WINAPI SizeofResource(HMODULE module, HRSRC resource) {
    const STRING_BLOCK* block = BlockOf(module, resource);
    return block != nullptr ? static_cast<DWORD>(block->size() * sizeof(WCHAR)) : 0;
}
