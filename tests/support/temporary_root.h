// A machine root of a test's own: a new temporary folder, named by KELDWICK_ROOT while it lives and removed after.
#pragma once

#include <cstdlib>

#include "tests/support/folder.h"
#include "win32/files/machine_root.h"

class TEMPORARY_ROOT : public FOLDER {
public:
    TEMPORARY_ROOT() {
        std::string name = (std::filesystem::temp_directory_path() / "keldwick-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) std::abort();
        folder = name;
        setenv("KELDWICK_ROOT", name.c_str(), 1);
        win32::ForgetMachineRoot();
    }
    ~TEMPORARY_ROOT() {
        unsetenv("KELDWICK_ROOT");
        win32::ForgetMachineRoot();
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    TEMPORARY_ROOT(TEMPORARY_ROOT&&) = delete;

    std::string Path(const std::string& name) const { return (folder / name).string(); }
};
