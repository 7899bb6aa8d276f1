// How the tools say that something could not be done.
#pragma once

#include <windows.h>

#include <stdexcept>
#include <string>

namespace tools {

// What could not be done and why: UTF-8, one line, no line break at its end. It ends the command.
class COMMAND_ERROR : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The system's text for the code.
std::string FailureText(DWORD code);

// Throws the COMMAND_ERROR "WHAT: the system's text for the code".
[[noreturn]] void FailCommand(const std::string& what, DWORD code);

// The same for errno, which may say that a file is not what it should be.
[[noreturn]] void FailFile(const std::string& what);

// The same for a change of the registry, whose file may have a fault of its own to name.
[[noreturn]] void FailRegistry(const std::string& what, DWORD code);

}  // namespace tools
