// Which COM classes and which directory providers this process has. What is not entered here does not exist, and
// CoCreateInstance and ADsOpenObject say so.
#pragma once

#include <adshlp.h>

#include <cstring>
#include <string_view>

namespace win32 {

inline bool SameGuid(const GUID& a, const GUID& b) { return memcmp(&a, &b, sizeof(a)) == 0; }

// Makes an object of its class and gives its interface `iid` with one reference; on failure *object stays null.
using CLASS_FACTORY = HRESULT (*)(REFIID iid, void** object);

// Enters a class, or replaces its factory. Null: the class is no longer registered. Callable from any thread.
void RegisterClass(REFCLSID clsid, CLASS_FACTORY factory);

// Opens an object by its whole path, which begins with the provider's name. User and password are null or both given.
using DIRECTORY_PROVIDER = HRESULT (*)(LPCWSTR path, LPCWSTR user, LPCWSTR password, DWORD flags, REFIID iid,
                                       void** object);

// Enters the provider for paths that begin with `name`, the colon included ("LDAP:"; letter case counts), or replaces
// it; null removes it. `name` must live as long as the process.
void RegisterProvider(std::u16string_view name, DIRECTORY_PROVIDER provider);

// The layer's own classes and providers, entered before the first look-up. In register_classes.cpp.
void RegisterOwnClasses();

// Null: not registered.
CLASS_FACTORY FindClass(REFCLSID clsid);
DIRECTORY_PROVIDER FindProvider(std::u16string_view path);

// Whether the calling thread has called CoInitialize.
bool ComInitialized();

}  // namespace win32
