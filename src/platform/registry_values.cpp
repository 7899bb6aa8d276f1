#include "platform/registry_values.h"

namespace keldwick {
namespace {

bool Succeed(LSTATUS result) {
    if (result == ERROR_SUCCESS) return true;
    SetLastError(static_cast<DWORD>(result));
    return false;
}

}  // namespace

bool RegGetDword(HKEY key, const WCHAR* name, DWORD& value) {
    DWORD type = REG_NONE;
    DWORD found = 0;
    DWORD bytes = sizeof(found);
    const LSTATUS result = RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(&found), &bytes);
    if (result == ERROR_MORE_DATA && type != REG_DWORD) return Succeed(ERROR_INVALID_DATATYPE);
    if (!Succeed(result)) return false;
    if (type != REG_DWORD || bytes != sizeof(found)) return Succeed(ERROR_INVALID_DATATYPE);
    value = found;
    return true;
}

bool RegGetString(HKEY key, const WCHAR* name, STRING& value) {
    DWORD type = REG_NONE;
    DWORD bytes = 0;
    const LSTATUS result = RegQueryValueExW(key, name, nullptr, &type, nullptr, &bytes);
    if (result != ERROR_MORE_DATA && !Succeed(result)) return false;
    if (type != REG_SZ && type != REG_EXPAND_SZ) return Succeed(ERROR_INVALID_DATATYPE);
    if (bytes == 0) {
        value.Clear();
        return true;
    }
    const DWORD units = bytes / sizeof(WCHAR) + bytes % sizeof(WCHAR) - 1;
    STRING found(units);
    bytes = (units + 1) * sizeof(WCHAR);
    if (!Succeed(RegQueryValueExW(key, name, nullptr, &type, reinterpret_cast<BYTE*>(found.Buffer()), &bytes))) {
        return false;
    }
    found.Buffer()[units] = 0;  // a value stored without its terminator has written here
    value = std::move(found);
    return true;
}

bool RegGetValueInfo(HKEY key, const WCHAR* name, DWORD* type, DWORD* bytes) {
    return Succeed(RegQueryValueExW(key, name, nullptr, type, nullptr, bytes));
}

bool RegSetDword(HKEY key, const WCHAR* name, DWORD value) {
    return Succeed(RegSetValueExW(key, name, 0, REG_DWORD, reinterpret_cast<const BYTE*>(&value), sizeof(value)));
}

bool RegSetString(HKEY key, const WCHAR* name, const WCHAR* text) {
    const DWORD bytes = (static_cast<DWORD>(lstrlenW(text)) + 1) * sizeof(WCHAR);
    return Succeed(RegSetValueExW(key, name, 0, REG_SZ, reinterpret_cast<const BYTE*>(text), bytes));
}

}  // namespace keldwick
