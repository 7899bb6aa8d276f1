// A folder whose files a test reads and writes whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

class FOLDER {
public:
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

protected:
    std::filesystem::path folder;
};
