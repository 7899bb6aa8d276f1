// A machine root of a test's own: a new temporary folder, named by KELDWICK_ROOT while it lives and removed after.
#pragma once

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class TEMPORARY_ROOT {
public:
    TEMPORARY_ROOT() {
        std::string name = (std::filesystem::temp_directory_path() / "keldwick-test-XXXXXX").string();
        if (mkdtemp(name.data()) == nullptr) std::abort();
        folder = name;
        setenv("KELDWICK_ROOT", name.c_str(), 1);
    }
    ~TEMPORARY_ROOT() {
        unsetenv("KELDWICK_ROOT");
        std::error_code ignored;
        std::filesystem::remove_all(folder, ignored);
    }
    TEMPORARY_ROOT(const TEMPORARY_ROOT&) = delete;
    TEMPORARY_ROOT& operator=(const TEMPORARY_ROOT&) = delete;

    std::string Path(const std::string& name) const { return (folder / name).string(); }
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
