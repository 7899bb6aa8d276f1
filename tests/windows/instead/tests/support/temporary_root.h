// On Windows the machine is the machine: files lie in the program's folder, which is the test's own, and the settings
// are removed before each test.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TEMPORARY_ROOT {
public:
    TEMPORARY_ROOT() {
        char path[MAX_PATH] = "";
        GetModuleFileNameA(nullptr, path, MAX_PATH);
        folder = std::filesystem::path(path).parent_path();
        RegDeleteTreeA(HKEY_LOCAL_MACHINE, "SOFTWARE\\Vantorel Systems");
    }
    std::string Read(const std::string& name) const {
        std::ifstream file(folder / name, std::ios::binary);
        std::ostringstream bytes;
        bytes << file.rdbuf();
        return bytes.str();
    }
    void Write(const std::string& name, const std::string& bytes) const {
        std::filesystem::create_directories((folder / name).parent_path());
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }

private:
    std::filesystem::path folder;
};
