#include "platform/resource_strings.h"

namespace keldwick {
namespace {

constexpr WORD StringsInBlock = 16;  // of a string-table resource

// The counted string of that id, inside the module's resources; empty when there is none.
TEXT_VIEW FindString(WORD id, HMODULE module) {
    if (module == nullptr) module = GetModuleHandleW(nullptr);
    const HRSRC found = FindResourceW(module, MAKEINTRESOURCEW(id / StringsInBlock + 1), MAKEINTRESOURCEW(6));
    if (found == nullptr) return {};
    const HGLOBAL loaded = LoadResource(module, found);
    const auto* at = loaded != nullptr ? static_cast<const WCHAR*>(LockResource(loaded)) : nullptr;
    if (at == nullptr) return {};
    const WCHAR* const end = at + SizeofResource(module, found) / sizeof(WCHAR);
    for (WORD skip = id % StringsInBlock; at < end; --skip) {
        const size_t count = static_cast<size_t>(*at++);
        if (count > static_cast<size_t>(end - at)) break;
        if (skip == 0) return {at, count};
        at += count;
    }
    return {};
}

}  // namespace

STRING LoadResourceString(WORD id, HMODULE module) { return STRING(FindString(id, module)); }

void LoadResourceString(STRING& target, WORD id, HMODULE module) {
    const TEXT_VIEW text = FindString(id, module);
    if (!text.empty()) target.Assign(text);
}

void LoadResourceString(STRING_UTF8& target, WORD id, HMODULE module) {
    const TEXT_VIEW text = FindString(id, module);
    if (!text.empty()) target.AssignWide(text);
}

STRING ResourceFormatV(HMODULE module, WORD id, FORMAT_ARGUMENTS arguments) {
    const STRING format = LoadResourceString(id, module);
    STRING text;
    text.FormatV(format.Text(), arguments);
    return text;
}

}  // namespace keldwick
