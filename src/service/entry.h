// The program behind its platform's entry function.
#pragma once

#include <windows.h>

namespace keldwick {

// Runs with the process's arguments, the program's name first; they must live as long as the process. Gives the exit
// code.
int RunProgram(int argc, WCHAR** argv);

}  // namespace keldwick
