// What the machine says of itself: its name and the version of Windows that it presents.
#include <unistd.h>
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>

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

struct VERSION_FIELD {
    DWORD type;
    DWORD present;
    DWORD wanted;
};

// Major, minor and service pack are one number of three digits: a greater digit decides, an equal one passes on.
bool DigitsSatisfy(const VERSION_FIELD (&fields)[3], DWORD types, DWORDLONG mask) {
    for (const VERSION_FIELD& field : fields) {
        if ((types & field.type) == 0) continue;
        const DWORD condition = ConditionOf(mask, field.type);
        if (condition == VER_EQUAL && field.present != field.wanted) return false;
        if (condition == VER_GREATER_EQUAL && field.present != field.wanted) return field.present > field.wanted;
    }
    return true;
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
    const DWORD size = version->dwOSVersionInfoSize;
    if (size != sizeof(OSVERSIONINFOW) && size != sizeof(OSVERSIONINFOEXW))
        return win32::FailWith(ERROR_INSUFFICIENT_BUFFER);
    OSVERSIONINFOEXW full = {};
    FillVersion(full);
    full.dwOSVersionInfoSize = size;
    memcpy(static_cast<void*>(version), &full, size);  // the shorter structure is the longer one's beginning
    return TRUE;
}

ULONGLONG WINAPI VerSetConditionMask(ULONGLONG mask, DWORD type, BYTE condition) {
    if (type == 0) return mask;
    return mask | static_cast<ULONGLONG>(condition & 7) << (static_cast<unsigned>(__builtin_ctz(type)) * ConditionBits);
}

BOOL WINAPI VerifyVersionInfoW(LPOSVERSIONINFOEXW version, DWORD types, DWORDLONG mask) {
    constexpr DWORD known = VER_MAJORVERSION | VER_MINORVERSION | VER_SERVICEPACKMAJOR | VER_PRODUCT_TYPE;
    if (version == nullptr || types == 0 || (types & ~known) != 0 || mask == 0)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    for (DWORD type = 1; type <= known; type <<= 1) {
        const DWORD condition = ConditionOf(mask, type);
        if ((types & type) != 0 && condition != VER_EQUAL && condition != VER_GREATER_EQUAL)
            return win32::FailWith(ERROR_INVALID_PARAMETER);
    }
    OSVERSIONINFOEXW own = {};
    FillVersion(own);
    const VERSION_FIELD digits[3] = {
        {VER_MAJORVERSION, own.dwMajorVersion, version->dwMajorVersion},
        {VER_MINORVERSION, own.dwMinorVersion, version->dwMinorVersion},
        {VER_SERVICEPACKMAJOR, own.wServicePackMajor, version->wServicePackMajor},
    };
    if (!DigitsSatisfy(digits, types, mask)) return win32::FailWith(OldVersionError);
    if ((types & VER_PRODUCT_TYPE) != 0) {
        const bool equal = ConditionOf(mask, VER_PRODUCT_TYPE) == VER_EQUAL;
        if (equal ? own.wProductType != version->wProductType : own.wProductType < version->wProductType)
            return win32::FailWith(OldVersionError);
    }
    return TRUE;
}
