// While it lives, this process gets no further descriptor: calls that need one fail with EMFILE.
#pragma once

#include <fcntl.h>
#include <sys/resource.h>
#include <unistd.h>

class NO_DESCRIPTORS {
public:
    NO_DESCRIPTORS() {
        getrlimit(RLIMIT_NOFILE, &before);
        const int lowestFree = fcntl(STDIN_FILENO, F_DUPFD_CLOEXEC, 0);
        if (lowestFree >= 0) close(lowestFree);
        const rlimit none{static_cast<rlim_t>(lowestFree), before.rlim_max};
        setrlimit(RLIMIT_NOFILE, &none);
    }
    ~NO_DESCRIPTORS() { setrlimit(RLIMIT_NOFILE, &before); }
    NO_DESCRIPTORS(const NO_DESCRIPTORS&) = delete;
    NO_DESCRIPTORS& operator=(const NO_DESCRIPTORS&) = delete;

private:
    rlimit before{};
};
