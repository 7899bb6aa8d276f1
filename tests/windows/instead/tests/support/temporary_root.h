// On Windows the machine is the machine: files lie in the program's folder, which is the test's own, and the settings
// are removed before each test.
#pragma once

#include "tests/support/folder.h"

class TEMPORARY_ROOT : public FOLDER {
public:
    TEMPORARY_ROOT() {
        char path[MAX_PATH] = "";
        GetModuleFileNameA(nullptr, path, MAX_PATH);
        folder = std::filesystem::path(path).parent_path();
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Vantorel Systems");
    }
};
