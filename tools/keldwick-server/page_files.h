// The files of the page (page/), which are part of the program.
#pragma once

#include <span>
#include <string_view>

namespace tools {

struct PAGE_FILE {
    std::string_view path, type, text;
};

std::span<const PAGE_FILE> PageFiles();  // made by cmake/page_files.cmake

}  // namespace tools
