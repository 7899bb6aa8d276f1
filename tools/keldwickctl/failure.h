// How the commands say that something could not be done.
#pragma once

#include <windows.h>

#include <string>

// The system's text for the code.
std::string FailureText(DWORD code);

// Throws the COMMAND_ERROR "WHAT: the system's text for the code".
[[noreturn]] void FailCommand(const std::string& what, DWORD code);

// The same for a change of the registry, whose file may have a fault of its own to name.
[[noreturn]] void FailRegistry(const std::string& what, DWORD code);
