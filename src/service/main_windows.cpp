// The program's entry on Windows, where the arguments are in the program's form.
#include <windows.h>

#include <stdlib.h>

#include "service/entry.h"

int WINAPI wWinMain(HINSTANCE, HINSTANCE, LPWSTR, int) { return keldwick::RunProgram(__argc, __wargv); }
