// Another process that holds something open.
#pragma once

#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>

class OTHER_PROCESS {
public:
    // opens: gives whether it could. What it has opened is held until this is destroyed, which kills the process.
    template <typename OPENS>
    explicit OTHER_PROCESS(OPENS opens) : child(fork()) {
        if (child == 0) _exit(opens() ? raise(SIGSTOP) : 1);
        siginfo_t about{};
        EXPECT_EQ(0, waitid(P_PID, static_cast<id_t>(child), &about, WSTOPPED | WEXITED | WNOWAIT));
        EXPECT_EQ(CLD_STOPPED, about.si_code);
    }
    ~OTHER_PROCESS() {
        kill(child, SIGKILL);
        waitpid(child, nullptr, 0);
    }
    const pid_t child;
};
