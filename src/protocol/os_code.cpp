#include "protocol/os_code.h"

namespace keldwick {

namespace {

struct OS_VERSION {
    DWORD major, minor;
    BYTE server, workstation;  // codes; their order is the identity server's
};

constexpr OS_VERSION Versions[] = {
    {10, 0, 12, 12}, {6, 3, 10, 11}, {6, 2, 9, 8}, {6, 1, 6, 7}, {6, 0, 5, 4}, {5, 1, 1, 2},
};

constexpr DWORD ComparedParts[] = {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR};

bool IsAtLeast(const OS_VERSION& version) {
    OSVERSIONINFOEXW wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.dwMajorVersion = version.major;
    wanted.dwMinorVersion = version.minor;
    DWORD types = 0;
    ULONGLONG conditions = 0;
    for (const DWORD part : ComparedParts) {
        types |= part;
        conditions = VerSetConditionMask(conditions, part, VER_GREATER_EQUAL);
    }
    return VerifyVersionInfoW(&wanted, types, conditions) != FALSE;
}

bool IsWorkstation() {
    OSVERSIONINFOEXW wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.wProductType = VER_NT_WORKSTATION;
    return VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != FALSE;
}

}  // namespace

BYTE OsCode() {
    for (const OS_VERSION& version : Versions)
        if (IsAtLeast(version)) return IsWorkstation() ? version.workstation : version.server;
    return 0;
}

}  // namespace keldwick
