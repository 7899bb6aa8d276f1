// Modules: the program itself with its resources, and as much of ntdll.dll as the kernel's debug print.
#include "win32/files/own_module.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <map>
#include <string>
#include <string_view>
#include <vector>

#include "resources/resource_tables.h"
#include "win32/files/machine_root.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

constexpr std::u16string_view OwnName = u"Keldwick.exe";

// What the handles point at; only the addresses count.
char ownModule;
char systemModule;

HMODULE Own() { return reinterpret_cast<HMODULE>(&ownModule); }
HMODULE Ntdll() { return reinterpret_cast<HMODULE>(&systemModule); }

// One record of the kernel's log for each line. A record has a length limit of the kernel's; longer lines go in pieces.
int PrintToKernelLog(std::string_view text) {
    constexpr size_t maxRecordBytes = 900;
    static const int log = open("/dev/kmsg", O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (log < 0) return EACCES;
    while (!text.empty()) {
        const size_t length = std::min({text.find('\n'), text.size(), maxRecordBytes});
        std::string_view line = text.substr(0, length);
        text.remove_prefix(length < text.size() && text[length] == '\n' ? length + 1 : length);
        while (!line.empty() && line.back() == '\r') line.remove_suffix(1);
        if (line.empty()) continue;
        const std::string record = "<6>keldwick: " + std::string(line);  // 6: the kernel's informational level
        if (write(log, record.data(), record.size()) < 0) return errno;
    }
    return 0;
}

}  // namespace

extern "C" ULONG DbgPrintEx(ULONG component, ULONG level, const char* format, ...)
    __attribute__((format(printf, 3, 4)));

// Component and level select what a kernel debugger shows; the kernel's log takes everything.
extern "C" ULONG DbgPrintEx(ULONG, ULONG, const char* format, ...) {
    constexpr ULONG accessDenied = 0xC0000022;  // STATUS_ACCESS_DENIED
    va_list arguments;
    va_start(arguments, format);
    va_list again;
    va_copy(again, arguments);
    std::string text(static_cast<size_t>(std::max(vsnprintf(nullptr, 0, format, arguments), 0)), '\0');
    vsnprintf(text.data(), text.size() + 1, format, again);
    va_end(again);
    va_end(arguments);
    return PrintToKernelLog(text) == 0 ? 0 : accessDenied;
}

namespace win32 {

bool IsOwnModule(HMODULE module) { return module == nullptr || module == Own(); }

std::u16string OwnModulePath() { return WindowsPath(MachineRoot() + "/" + ToUtf8(OwnName)); }

bool NamesOwnModule(std::u16string_view path) {
    const std::u16string_view stem = OwnName.substr(0, OwnName.size() - 4);
    std::u16string wanted(path);
    std::replace(wanted.begin(), wanted.end(), u'/', u'\\');
    return SameName(wanted, OwnName) || SameName(wanted, stem) || SameName(wanted, OwnModulePath());
}

}  // namespace win32

HMODULE WINAPI GetModuleHandleW(LPCWSTR name) {
    if (name == nullptr || win32::NamesOwnModule(name)) return Own();
    if (win32::SameName(name, u"ntdll.dll") || win32::SameName(name, u"ntdll")) return Ntdll();
    return win32::NullWith(ERROR_MOD_NOT_FOUND);
}

DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD units) {
    if (!win32::IsOwnModule(module)) return static_cast<DWORD>(win32::FailWith(ERROR_MOD_NOT_FOUND));
    if (buffer == nullptr || units == 0) return static_cast<DWORD>(win32::FailWith(ERROR_INSUFFICIENT_BUFFER));
    const std::u16string path = win32::OwnModulePath();
    const size_t copied = std::min<size_t>(path.size(), units - 1);
    memcpy(buffer, path.data(), copied * sizeof(WCHAR));
    buffer[copied] = 0;
    if (copied == path.size()) return static_cast<DWORD>(copied);
    SetLastError(ERROR_INSUFFICIENT_BUFFER);
    return units;
}

HMODULE WINAPI LoadLibraryExW(LPCWSTR path, HANDLE, DWORD) {
    if (path != nullptr && win32::NamesOwnModule(path)) return Own();
    return win32::NullWith(ERROR_MOD_NOT_FOUND);
}

// Both modules live as long as the process.
BOOL WINAPI FreeLibrary(HMODULE module) {
    if (module == Own() || module == Ntdll()) return TRUE;
    return win32::FailWith(ERROR_INVALID_HANDLE);
}

FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name) {
    if (module == Ntdll() && name != nullptr && strcmp(name, "DbgPrintEx") == 0)
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&DbgPrintEx));
    return win32::NullWith(module == nullptr ? ERROR_INVALID_HANDLE : ERROR_PROC_NOT_FOUND);
}

// ---- Resources: the string table as blocks of sixteen counted strings, as a resource compiler makes them -----------

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

STRING_BLOCK* BlockOf(HMODULE module, HRSRC resource) {
    if (win32::IsOwnModule(module) && resource != nullptr) return reinterpret_cast<STRING_BLOCK*>(resource);
    return win32::NullWith(ERROR_INVALID_HANDLE);
}

}  // namespace

HRSRC WINAPI FindResourceW(HMODULE module, LPCWSTR name, LPCWSTR type) {
    if (!win32::IsOwnModule(module)) return win32::NullWith(ERROR_RESOURCE_DATA_NOT_FOUND);
    if (type != RT_STRING) return win32::NullWith(ERROR_RESOURCE_TYPE_NOT_FOUND);
    const auto block = Blocks().find(reinterpret_cast<ULONG_PTR>(name));
    if (block == Blocks().end()) return win32::NullWith(ERROR_RESOURCE_NAME_NOT_FOUND);
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

// ---- Version information: of the program itself alone --------------------------------------------------------------

namespace {

// What GetFileVersionInfoW fills in: only VerQueryValueW reads it, and the values are the program's own.
struct VERSION_BLOCK {
    DWORD signature;
};
constexpr DWORD VersionSignature = 0x5256444B;  // "KDVR"

constexpr WORD Translation[] = {keldwick::ResourceLanguage, keldwick::ResourceCodePage};

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
    return HasVersion(file) ? sizeof(VERSION_BLOCK) : 0;
}

BOOL WINAPI GetFileVersionInfoW(LPCWSTR file, DWORD, DWORD bytes, LPVOID block) {
    if (!HasVersion(file)) return FALSE;
    if (block == nullptr || bytes < sizeof(VERSION_BLOCK)) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    static_cast<VERSION_BLOCK*>(block)->signature = VersionSignature;
    return TRUE;
}

// The length is in bytes, or for a text in units with the terminator.
BOOL WINAPI VerQueryValueW(LPCVOID block, LPCWSTR subBlock, LPVOID* value, UINT* length) {
    if (block == nullptr || subBlock == nullptr || value == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (static_cast<const VERSION_BLOCK*>(block)->signature != VersionSignature)
        return win32::FailWith(ERROR_INVALID_DATA);
    const auto give = [&](const void* found, size_t count) {
        *value = const_cast<void*>(found);
        if (length != nullptr) *length = static_cast<UINT>(count);
        return TRUE;
    };
    if (win32::SameName(subBlock, u"\\VarFileInfo\\Translation")) return give(Translation, sizeof Translation);
    char prefix[64];
    snprintf(prefix, sizeof prefix, "\\StringFileInfo\\%04X%04X\\", Translation[0], Translation[1]);
    for (const keldwick::RESOURCE_VERSION_VALUE& each : keldwick::VersionResource())
        if (win32::SameName(subBlock, win32::ToUtf16(prefix) + each.name))
            return give(each.text, std::char_traits<WCHAR>::length(each.text) + 1);
    return win32::FailWith(ERROR_RESOURCE_TYPE_NOT_FOUND);
}
