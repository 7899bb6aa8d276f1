// Settings that only the layer reads: the values of
// HKEY_LOCAL_MACHINE\SOFTWARE\Vantorel Systems\Keldwick\Linux.
#pragma once

#include <windows.h>

#include <memory>
#include <optional>
#include <string>

#include "win32/files/file_watch.h"

namespace win32 {

// The value as it stands in the registry now; nothing when it is absent or of another type.
std::optional<DWORD> LinuxNumber(const char16_t* name);
std::optional<std::u16string> LinuxText(const char16_t* name);

// What the values above are read from in that machine root, as MachineRoot has given it: while it stays the same
// pointer, they are the same.
std::shared_ptr<const void> LinuxSettingsVersion(const std::string& root);

// As long as it holds, the values of that machine root are what they are from now on.
FILE_WATCH::MARK LinuxSettingsMark(const std::string& root);

// Whether this process watches the registry's file, as one that stays does.
bool LinuxSettingsAreWatched();

}  // namespace win32
