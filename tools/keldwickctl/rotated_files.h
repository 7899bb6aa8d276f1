// What rotation makes of a log file: files beside it whose names begin with its own.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

struct ROTATED_FILE {
    std::string name;            // with its folder
    unsigned long long written;  // last, in nanoseconds since 1970
    unsigned long long device, inode;
};

// The rotated files of that path, in the order they were written in: FILE.1, FILE-20261124, FILE.2026-11-24T17,
// FILE.old. Packed ones are left out, and what is more than a thousand.
std::vector<ROTATED_FILE> RotatedFiles(const std::string& path);

// Which of two rotated names is the newer one: numbers count upwards with age, dates do not.
bool IsNewerName(std::string_view a, std::string_view b);

std::string FolderOf(const std::string& path);

unsigned long long WrittenAt(const struct stat& about);  // in nanoseconds since 1970
