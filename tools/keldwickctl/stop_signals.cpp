#include "tools/keldwickctl/stop_signals.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <cstring>
#include <string>

#include "tools/keldwickctl/commands.h"

STOP_SIGNALS::STOP_SIGNALS() {
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    struct sigaction hangup;  // who starts a program to live on without its terminal has it ignored
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) sigaddset(&signals, SIGHUP);
    sigprocmask(SIG_BLOCK, &signals, &before);
    fd = signalfd(-1, &signals, SFD_CLOEXEC | SFD_NONBLOCK);
    if (fd < 0) throw COMMAND_ERROR(std::string("cannot wait for signals: ") + std::strerror(errno));
}

STOP_SIGNALS::~STOP_SIGNALS() {
    signalfd_siginfo taken;
    while (read(fd, &taken, sizeof taken) > 0) {  // or it would end the process once it is let through
    }
    close(fd);
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

bool STOP_SIGNALS::Wait(int input, int milliseconds, bool* ready) const {
    std::array<pollfd, 2> both = {{{fd, POLLIN, 0}, {input, POLLIN, 0}}};
    const int got = poll(both.data(), both.size(), milliseconds);
    if (ready != nullptr) *ready = got > 0 && both[1].revents != 0;
    return got > 0 && both[0].revents != 0;
}
