// Modules: the program itself, and as much of ntdll.dll as the kernel's debug print.
#include <fcntl.h>
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <string>
#include <string_view>

#include "win32/files/machine_root.h"
#include "win32/files/own_module.h"
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
    constexpr size_t maxRecord = 900;
    static const int log = open("/dev/kmsg", O_WRONLY | O_CLOEXEC | O_NOCTTY);
    if (log < 0) return EACCES;
    while (!text.empty()) {
        const size_t length = std::min({text.find('\n'), text.size(), maxRecord});
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
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
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
    SetLastError(ERROR_MOD_NOT_FOUND);
    return nullptr;
}

// Both modules live as long as the process.
BOOL WINAPI FreeLibrary(HMODULE module) {
    if (module == Own() || module == Ntdll()) return TRUE;
    return win32::FailWith(ERROR_INVALID_HANDLE);
}

FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name) {
    if (module == Ntdll() && name != nullptr && strcmp(name, "DbgPrintEx") == 0)
        return reinterpret_cast<FARPROC>(reinterpret_cast<void*>(&DbgPrintEx));
    SetLastError(module == nullptr ? ERROR_INVALID_HANDLE : ERROR_PROC_NOT_FOUND);
    return nullptr;
}
