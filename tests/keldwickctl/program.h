// Runs the built keldwickctl as a user would.
#pragma once

#include "tests/support/temporary_root.h"

#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

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

// Waits for the child's end, which it brings about itself after a time that no command takes.
inline bool AwaitEnd(pid_t child, int& status) {
    constexpr int longest = 20000;  // ms
    pollfd end = {static_cast<int>(syscall(SYS_pidfd_open, child, 0)), POLLIN, 0};
    if (poll(&end, 1, longest) != 1) kill(child, SIGKILL);
    close(end.fd);
    return waitpid(child, &status, 0) == child;
}

inline OUTCOME RunKeldwickctl(const TEMPORARY_ROOT& root, const WORDS& words) {
    // The test program stands beside it.
    std::string program = std::filesystem::read_symlink("/proc/self/exe").replace_filename("keldwickctl").string();
    const std::string out = root.Path("stdout.txt"), error = root.Path("stderr.txt");
    std::vector<char*> arguments{program.data()};
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t files;
    posix_spawn_file_actions_init(&files);
    posix_spawn_file_actions_addopen(&files, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&files, 1, out.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    posix_spawn_file_actions_addopen(&files, 2, error.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
    OUTCOME outcome;
    pid_t child = -1;
    int status = 0;
    const bool ran = posix_spawn(&child, program.c_str(), &files, nullptr, arguments.data(), environ) == 0;
    if (ran && AwaitEnd(child, status) && WIFEXITED(status)) outcome.exitCode = WEXITSTATUS(status);
    posix_spawn_file_actions_destroy(&files);
    outcome.out = root.Read("stdout.txt");
    outcome.error = root.Read("stderr.txt");
    return outcome;
}
