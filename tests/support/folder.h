// A folder whose files a test reads and writes whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>

// Empty when there is no such file.
inline std::string Content(const std::filesystem::path& path) {
    std::ostringstream bytes;
    bytes << std::ifstream(path, std::ios::binary).rdbuf();  // not one by one, over which sanitizers take long
    return bytes.str();
}

class FOLDER {
public:
    std::string Read(const std::string& name) const { return Content(folder / name); }
    void Write(const std::string& name, const std::string& bytes) const {
        std::filesystem::create_directories((folder / name).parent_path());
        std::ofstream(folder / name, std::ios::binary) << bytes;
    }

protected:
    std::filesystem::path folder;
};
