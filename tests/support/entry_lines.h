// Entries of a directory's export, one a line.
#pragma once

#include <string>

// A bar for each line break within an entry, which goes on in the next line when the bar is the last in its own.
inline std::string Entries(const std::string& lines) {
    std::string file;
    for (const char c : lines) {
        if (c == '\n' && file.ends_with('\n')) continue;
        file += c == '|' ? "\n" : c == '\n' ? "\n\n" : std::string(1, c);
    }
    return file;
}
