// The machine root: the folder that stands for the Windows machine, and how Windows paths map to the host's.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace win32 {

// KELDWICK_ROOT, or the folder of the running program when that is not set; absolute, without a trailing slash.
// Read from the environment at every call, so that tests can move it.
std::string MachineRoot();

// A path below the machine root: MachineRoot() + "/" + name.
std::string MachinePath(std::string_view name);

// The host's path for a Windows path: drive C: is the root of the file system, back slashes become slashes.
std::string HostPath(std::u16string_view path);

// The Windows path for an absolute host path: "C:" in front, slashes become back slashes.
std::u16string WindowsPath(std::string_view path);

}  // namespace win32
