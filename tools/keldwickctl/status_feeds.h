// The live sources of a machine root, as their state files and the files they follow show them.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct FEED_STATUS {
    std::string name, source, file, log;  // the file is empty for standard input
    bool running = false;
    unsigned long long records = 0, skipped = 0, unreadable = 0;
    unsigned long long behind = 0;  // bytes of the file that are not in the log yet
    std::string marked;             // when the feed last marked its place, ISO
    std::string damage;             // why the state cannot be read; then nothing else is known
};

// In the order of their names. Throws COMMAND_ERROR when the folder cannot be looked into.
std::vector<FEED_STATUS> ReadFeeds();
