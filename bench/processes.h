// What benchmarks of whole programs share: starting them, waiting for something, giving up.
#pragma once

#include <spawn.h>
#include <sys/wait.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

[[noreturn]] inline void Fail(const std::string& what) {
    std::fprintf(stderr, "%s: %s: %s\n", program_invocation_short_name, what.c_str(), std::strerror(errno));
    std::exit(1);
}

inline long NowNs() {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch())
        .count();
}

// Starts a program, its standard output and error being those descriptors unless they are -1.
inline pid_t Start(const std::vector<std::string>& words, int output = -1, int error = -1) {
    std::vector<char*> arguments;
    for (const std::string& word : words) arguments.push_back(const_cast<char*>(word.c_str()));
    arguments.push_back(nullptr);
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    if (output != -1) posix_spawn_file_actions_adddup2(&actions, output, 1);
    if (error != -1) posix_spawn_file_actions_adddup2(&actions, error, 2);
    pid_t child = 0;
    if ((errno = posix_spawn(&child, arguments[0], &actions, nullptr, arguments.data(), environ)) != 0)
        Fail("starting " + words[0]);
    posix_spawn_file_actions_destroy(&actions);
    return child;
}

inline void Run(const std::vector<std::string>& words, int output = -1) {
    int status = 0;
    const pid_t child = Start(words, output);
    if (waitpid(child, &status, 0) != child || status != 0) Fail(words[0] + " " + words[1]);
}

// Waits, two minutes at most.
template <typename CONDITION>
void Await(CONDITION condition, const char* what) {
    for (int i = 0; i < 12000; ++i) {
        if (condition()) return;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    errno = ETIMEDOUT;
    Fail(what);
}

inline std::string FileText(const std::string& file) {
    std::ifstream in(file);
    return {std::istreambuf_iterator<char>(in), {}};
}

inline bool FileHas(const std::string& file, const std::string& text) {
    return FileText(file).find(text) != std::string::npos;
}
