// The text format in which registry editors export and import keys, "Windows Registry Editor Version 5.00". See
// docs/registry-format.md.
#pragma once

#include "win32/registry/tree.h"

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace win32 {

struct REG_TEXT_ERROR {
    size_t line = 0;          // counted from 1; 0: the file as a whole
    const char* reason = "";  // English, no period at its end
};

// The keys of a file: UTF-8, or UTF-16 in either byte order with a byte-order mark. Any bytes may come; nothing (and
// where and why) when they do not make a whole file. Costs memory in proportion to the bytes, within the tree's bounds.
std::optional<REG_TREE> ParseRegText(std::string_view bytes, REG_TEXT_ERROR& error);

// The file for a tree, in UTF-8 with line feeds: parsed again it gives the same keys and values, and the comments stand
// above what they stood above.
std::string WriteRegText(const REG_TREE& tree);

}  // namespace win32
