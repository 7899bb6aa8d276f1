// Version information of the own module. The block that GetFileVersionInfoW fills is the layer's own: a list of paths,
// each with its value, which only VerQueryValueW reads.
#include <sys/stat.h>
#include <windows.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "resources/resource_tables.h"
#include "win32/files/machine_root.h"
#include "win32/files/own_module.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

// The block: header, `count` entries, then the paths and the values they point at, by offsets from its beginning.
struct VERSION_HEADER {
    DWORD signature;
    DWORD bytes;
    DWORD count;
};
struct VERSION_ENTRY {
    DWORD pathOffset, pathUnits;
    DWORD valueOffset;
    UINT valueLength;  // as VerQueryValueW reports it: bytes, or units with the terminator for a text
};
constexpr DWORD VersionSignature = 0x5256444B;  // "KDVR"

DWORD Append(std::vector<BYTE>& block, const void* data, size_t bytes) {
    const size_t offset = block.size();
    block.insert(block.end(), static_cast<const BYTE*>(data), static_cast<const BYTE*>(data) + bytes);
    block.resize((block.size() + 3) / 4 * 4);
    return static_cast<DWORD>(offset);
}

void AddEntry(std::vector<BYTE>& block, DWORD index, const std::u16string& path, const void* value, size_t bytes,
              size_t length) {
    VERSION_ENTRY entry;
    entry.pathOffset = Append(block, path.data(), path.size() * sizeof(WCHAR));
    entry.pathUnits = static_cast<DWORD>(path.size());
    entry.valueOffset = Append(block, value, bytes);
    entry.valueLength = static_cast<UINT>(length);
    memcpy(block.data() + sizeof(VERSION_HEADER) + index * sizeof entry, &entry, sizeof entry);
}

std::vector<BYTE> MakeBlock() {
    const auto values = keldwick::VersionResource();
    const DWORD count = static_cast<DWORD>(values.count + 1);
    std::vector<BYTE> block(sizeof(VERSION_HEADER) + count * sizeof(VERSION_ENTRY));
    const WORD translation[] = {keldwick::ResourceLanguage, keldwick::ResourceCodePage};
    AddEntry(block, 0, u"\\VarFileInfo\\Translation", translation, sizeof translation, sizeof translation);
    char prefix[64];
    snprintf(prefix, sizeof prefix, "\\StringFileInfo\\%04X%04X\\", translation[0], translation[1]);
    DWORD index = 1;
    for (const keldwick::RESOURCE_VERSION_VALUE& value : values) {
        const std::u16string text(value.text);
        AddEntry(block, index++, win32::ToUtf16(prefix) + value.name, text.c_str(), (text.size() + 1) * sizeof(WCHAR),
                 text.size() + 1);
    }
    const VERSION_HEADER header = {VersionSignature, static_cast<DWORD>(block.size()), count};
    memcpy(block.data(), &header, sizeof header);
    return block;
}

// False, with the last error, for files that are not there and for those without version information: all but ours.
bool HasVersion(LPCWSTR file) {
    if (file == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (win32::NamesOwnModule(file)) return true;
    struct stat status;
    if (stat(win32::HostPath(file).c_str(), &status) != 0) return win32::FailWithErrno();
    return win32::FailWith(ERROR_RESOURCE_DATA_NOT_FOUND);
}

}  // namespace

DWORD WINAPI GetFileVersionInfoSizeW(LPCWSTR file, LPDWORD ignored) {
    if (ignored != nullptr) *ignored = 0;
    return HasVersion(file) ? static_cast<DWORD>(MakeBlock().size()) : 0;
}

// A smaller buffer takes as much as fits, as on Windows; queries then find nothing beyond it.
BOOL WINAPI GetFileVersionInfoW(LPCWSTR file, DWORD, DWORD bytes, LPVOID block) {
    if (!HasVersion(file)) return FALSE;
    std::vector<BYTE> whole = MakeBlock();
    if (block == nullptr || bytes < sizeof(VERSION_HEADER)) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    const DWORD copied = std::min(bytes, static_cast<DWORD>(whole.size()));
    memcpy(whole.data() + offsetof(VERSION_HEADER, bytes), &copied, sizeof copied);
    memcpy(block, whole.data(), copied);
    return TRUE;
}

BOOL WINAPI VerQueryValueW(LPCVOID block, LPCWSTR subBlock, LPVOID* value, UINT* length) {
    if (block == nullptr || subBlock == nullptr || value == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    const auto* bytes = static_cast<const BYTE*>(block);
    VERSION_HEADER header;
    memcpy(&header, bytes, sizeof header);
    if (header.signature != VersionSignature) return win32::FailWith(ERROR_INVALID_DATA);
    for (DWORD index = 0; index < header.count; ++index) {
        const size_t at = sizeof header + index * sizeof(VERSION_ENTRY);
        VERSION_ENTRY entry;
        if (at + sizeof entry > header.bytes) break;
        memcpy(&entry, bytes + at, sizeof entry);
        const bool isText = index > 0;
        const size_t valueBytes = entry.valueLength * (isText ? sizeof(WCHAR) : 1);
        if (entry.valueOffset + valueBytes > header.bytes) break;
        const auto* path = reinterpret_cast<const WCHAR*>(bytes + entry.pathOffset);
        if (!win32::SameName({path, entry.pathUnits}, subBlock)) continue;
        *value = const_cast<BYTE*>(bytes + entry.valueOffset);
        if (length != nullptr) *length = entry.valueLength;
        return TRUE;
    }
    return win32::FailWith(ERROR_RESOURCE_TYPE_NOT_FOUND);
}
