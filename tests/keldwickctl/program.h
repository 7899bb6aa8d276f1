// Runs the built keldwickctl as a user would.
#pragma once

#include <gmock/gmock.h>
#include <sys/wait.h>

#include <iterator>
#include <vector>

#include "tests/support/temporary_root.h"

using WORDS = std::vector<std::string>;

struct OUTCOME {
    int exitCode = -1;  // -1: it did not end by itself
    std::string out, error;
};

// A machine root of a test's own.
class MACHINE : public testing::Test {
protected:
    // A command: its words, which blanks part, and then others as they stand. None has an apostrophe.
    OUTCOME Run(const std::string& command, const WORDS& more = {}) const {
        std::istringstream stream(command);
        WORDS words{std::istream_iterator<std::string>(stream), {}};
        words.insert(words.end(), more.begin(), more.end());
        // The test program stands beside it. No command takes that long.
        std::string line = "timeout -s KILL 20 " +
                           std::filesystem::read_symlink("/proc/self/exe").replace_filename("keldwickctl").string();
        for (const std::string& word : words) line += " '" + word + "'";
        line += " </dev/null >" + root.Path("stdout.txt") + " 2>" + root.Path("stderr.txt");
        const int status = std::system(line.c_str());
        const int exitCode = WIFEXITED(status) && WEXITSTATUS(status) < 128 ? WEXITSTATUS(status) : -1;
        return {exitCode, root.Read("stdout.txt"), root.Read("stderr.txt")};
    }

    const TEMPORARY_ROOT root;
};
