// Another process that holds something open.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>

class OTHER_PROCESS {
public:
    // opens: gives whether it could. What it has opened is held until this is destroyed, which kills the process.
    template <typename OPENS>
    explicit OTHER_PROCESS(OPENS opens) {
        int ready[2];
        if (pipe(ready) != 0) std::abort();
        child = fork();
        if (child == 0) {
            const char opened = opens() ? 1 : 0;
            if (write(ready[1], &opened, 1) == 1) pause();
            _exit(1);
        }
        char opened = 0;
        EXPECT_TRUE(read(ready[0], &opened, 1) == 1 && opened == 1);
        for (const int unused : ready) close(unused);
    }
    ~OTHER_PROCESS() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    pid_t child = -1;
};
