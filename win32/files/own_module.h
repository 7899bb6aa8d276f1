// The program as a Windows module: Keldwick.exe in the machine root, whatever the host calls the running file. It is
// the one module with resources and messages; they are compiled in from src/resources.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace win32 {

// The module's handle; null stands for it too.
bool IsOwnModule(HMODULE module);

// "C:\...\Keldwick.exe".
std::u16string OwnModulePath();

// Whether a path or a bare file name, with or without ".exe", names the program. Case is ignored.
bool NamesOwnModule(std::u16string_view path);

}  // namespace win32
