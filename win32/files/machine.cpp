// What the machine says of itself: its name and the version of Windows that it presents.
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>

#include "win32/registry/linux_settings.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

constexpr size_t MaxComputerName = 15;
constexpr DWORD PlatformNt = 2;          // VER_PLATFORM_WIN32_NT
constexpr DWORD OldVersionError = 1150;  // ERROR_OLD_WIN_VERSION

// Windows Server 2022, unless the layer's settings name another.
void FillVersion(OSVERSIONINFOEXW& version) {
    version.dwMajorVersion = win32::LinuxNumber(u"OsMajor").value_or(10);
    version.dwMinorVersion = win32::LinuxNumber(u"OsMinor").value_or(0);
    version.dwBuildNumber = win32::LinuxNumber(u"OsBuild").value_or(20348);
    version.dwPlatformId = PlatformNt;
    version.wProductType = static_cast<BYTE>(win32::LinuxNumber(u"OsProductType").value_or(VER_NT_SERVER));
    version.wServicePackMajor = static_cast<WORD>(win32::LinuxNumber(u"OsServicePack").value_or(0));
    version.wServicePackMinor = 0;
    version.wSuiteMask = 0;
    version.wReserved = 0;
    std::u16string pack;
    if (version.wServicePackMajor != 0)
        pack = u"Service Pack " + win32::ToUtf16(std::to_string(version.wServicePackMajor));
    memset(version.szCSDVersion, 0, sizeof version.szCSDVersion);
    pack.copy(version.szCSDVersion, std::size(version.szCSDVersion) - 1);
}

// A condition occupies three bits in the mask, at the position of its type's bit.
constexpr unsigned ConditionBits = 3;

DWORD ConditionOf(DWORDLONG mask, DWORD type) {
    const unsigned position = static_cast<unsigned>(__builtin_ctz(type)) * ConditionBits;
    return static_cast<DWORD>(mask >> position) & 7;
}

}  // namespace

BOOL WINAPI GetComputerNameW(LPWSTR buffer, LPDWORD units) {
    if (units == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    char host[256] = {};
    if (gethostname(host, sizeof host - 1) != 0) return win32::FailWithErrno();
    std::u16string name = win32::ToUtf16(std::string(host, strcspn(host, ".")));
    name.resize(std::min(name.size(), MaxComputerName));
    CharUpperW(name.data());
    const DWORD room = *units;
    *units = static_cast<DWORD>(name.size() + 1);
    if (buffer == nullptr || room < *units) return win32::FailWith(ERROR_BUFFER_OVERFLOW);
    memcpy(buffer, name.c_str(), (name.size() + 1) * sizeof(WCHAR));
    --*units;
    return TRUE;
}

BOOL WINAPI GetVersionExW(LPOSVERSIONINFOW version) {
    if (version == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (version->dwOSVersionInfoSize != sizeof(OSVERSIONINFOW)) return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    OSVERSIONINFOEXW full = {};
    FillVersion(full);
    full.dwOSVersionInfoSize = sizeof(OSVERSIONINFOW);
    memcpy(version, &full, sizeof(OSVERSIONINFOW));  // which is the longer structure's beginning
    return TRUE;
}

ULONGLONG WINAPI VerSetConditionMask(ULONGLONG mask, DWORD type, BYTE condition) {
    if (type == 0) return mask;
    return mask | static_cast<ULONGLONG>(condition & 7) << (static_cast<unsigned>(__builtin_ctz(type)) * ConditionBits);
}

// Asked are: this version or a later one, and this kind of product.
BOOL WINAPI VerifyVersionInfoW(LPOSVERSIONINFOEXW version, DWORD types, DWORDLONG mask) {
    constexpr DWORD digits = VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR;
    const DWORD condition = types == digits ? VER_GREATER_EQUAL : VER_EQUAL;
    if (version == nullptr || (types != digits && types != VER_PRODUCT_TYPE))
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    for (DWORD type = 1; type <= types; type <<= 1)
        if ((types & type) != 0 && ConditionOf(mask, type) != condition)
            return win32::FailWith(ERROR_INVALID_PARAMETER);
    OSVERSIONINFOEXW own = {};
    FillVersion(own);
    const auto number = [](const OSVERSIONINFOEXW& of) {
        return std::tuple(of.dwMajorVersion, of.dwMinorVersion, of.wServicePackMajor);
    };
    const bool holds = types == digits ? number(own) >= number(*version) : own.wProductType == version->wProductType;
    return holds || win32::FailWith(OldVersionError);
}
