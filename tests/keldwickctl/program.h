// Runs the built keldwickctl as a user would.
#pragma once

#include "tests/support/temporary_root.h"

#include <sys/wait.h>

#include <cstdlib>
#include <iterator>
#include <sstream>
#include <string>
#include <vector>

using WORDS = std::vector<std::string>;

// A command's words, which blanks part, and then others as they stand.
inline WORDS Words(const std::string& command, const WORDS& more = {}) {
    std::istringstream stream(command);
    WORDS words{std::istream_iterator<std::string>(stream), {}};
    words.insert(words.end(), more.begin(), more.end());
    return words;
}

struct OUTCOME {
    int exitCode = -1;  // -1: it did not end by itself
    std::string out, error;
};

inline OUTCOME RunKeldwickctl(const TEMPORARY_ROOT& root, const WORDS& words) {
    // The test program stands beside it. No command takes that long.
    std::string command = "timeout -s KILL 20 " +
                          std::filesystem::read_symlink("/proc/self/exe").replace_filename("keldwickctl").string();
    for (std::string word : words) {
        for (size_t at = 0; (at = word.find('\'', at)) != word.npos; at += 4) word.replace(at, 1, "'\\''");
        command += " '" + word + "'";
    }
    command += " </dev/null >" + root.Path("stdout.txt") + " 2>" + root.Path("stderr.txt");
    const int status = std::system(command.c_str());
    const int exitCode = WIFEXITED(status) && WEXITSTATUS(status) < 128 ? WEXITSTATUS(status) : -1;
    return {exitCode, root.Read("stdout.txt"), root.Read("stderr.txt")};
}
