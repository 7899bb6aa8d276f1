// The machine root: the folder that stands for the Windows machine, what its files are called, and how Windows paths
// map to the host's.
#pragma once

#include <windows.h>

#include <string>
#include <string_view>

namespace win32 {

// KELDWICK_ROOT; when that is not set, DefaultRoot of the current folder and the program's. Absolute, without a
// trailing slash. It is chosen at the first call, and again at the first one after ForgetMachineRoot, which is for who
// has changed the environment. The same folder is always the same object, which lives as long as the process.
const std::string& MachineRoot();
void ForgetMachineRoot();

// The root of a program that runs in `current` and whose file lies in `programs`: the current folder, unless that is no
// machine root, because it holds no registry.reg, and the program's own is one.
std::string DefaultRoot(const std::string& current, const std::string& programs);

// A path below that machine root, and below the one in force: root + "/" + name.
std::string PathIn(const std::string& root, std::string_view name);
std::string MachinePath(std::string_view name);

// The layer's own files and folders there.
inline constexpr std::string_view RegistryFile = "registry.reg";
inline constexpr std::string_view DirectoryFile = "directory.ldif";
inline constexpr std::string_view EventLogFolder = "eventlog";
inline constexpr std::string_view EventLogExtension = ".evt";

// The file of the event log of that name, whose letters' case counts.
std::string EventLogPath(std::string_view log);

// The host's path for a Windows path: drive C: is the root of the file system, back slashes become slashes.
std::string HostPath(std::u16string_view path);

// The Windows path for an absolute host path: "C:" in front, slashes become back slashes.
std::u16string WindowsPath(std::string_view path);

}  // namespace win32
