#include "tools/keldwickctl/rotated_files.h"

#include <dirent.h>

#include <algorithm>

namespace {

constexpr size_t MostRotated = 1000;

// A rotated file's name after the path's.
bool IsRotated(std::string_view suffix) {
    if (suffix == ".old") return true;
    return suffix.size() > 1 && (suffix[0] == '.' || suffix[0] == '-') &&
           suffix.find_first_not_of("0123456789.-_:T", 1) == std::string_view::npos;
}

std::vector<std::string> RotatedNames(const std::string& path) {
    std::vector<std::string> names;
    const std::string folder = FolderOf(path), base = path.substr(path.rfind('/') + 1);
    DIR* const listing = opendir(folder.c_str());
    if (listing == nullptr) return names;
    while (const dirent* entry = readdir(listing)) {
        const std::string_view name = entry->d_name;
        if (!name.starts_with(base) || !IsRotated(name.substr(base.size()))) continue;
        names.push_back(folder + "/" + std::string(name));
        if (names.size() >= MostRotated) break;
    }
    closedir(listing);
    return names;
}

}  // namespace

std::vector<ROTATED_FILE> RotatedFiles(const std::string& path) {
    std::vector<ROTATED_FILE> files;
    for (const std::string& name : RotatedNames(path)) {
        struct stat about;
        if (stat(name.c_str(), &about) == 0 && S_ISREG(about.st_mode))
            files.push_back({name, WrittenAt(about), about.st_dev, about.st_ino});
    }
    std::sort(files.begin(), files.end(), [](const ROTATED_FILE& a, const ROTATED_FILE& b) {
        return a.written != b.written ? a.written < b.written : IsNewerName(b.name, a.name);
    });
    return files;
}

bool IsNewerName(std::string_view a, std::string_view b) {
    const auto isNumber = [](std::string_view name) {
        const std::string_view digits = name.substr(name.rfind('.') + 1);
        return digits.size() < 5 && digits.find_first_not_of("0123456789") == std::string_view::npos;
    };
    if (isNumber(a) && isNumber(b)) return a.size() != b.size() ? a.size() < b.size() : a < b;
    return a > b;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

unsigned long long WrittenAt(const struct stat& about) {
    constexpr unsigned long long NanosecondsPerSecond = 1000000000;
    return static_cast<unsigned long long>(about.st_mtim.tv_sec) * NanosecondsPerSecond +
           static_cast<unsigned long long>(about.st_mtim.tv_nsec);
}
