// A folder whose files a test reads and writes whole.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

// Empty when there is no such file.
inline std::string Content(const std::filesystem::path& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
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
