#include "tools/feed/console.h"

#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>

#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "win32/files/standard_stream.h"

namespace tools::feed {
namespace {

constexpr unsigned long long LinesPerShow = 10000;
constexpr unsigned long long MebiByte = 1024 * 1024;

// Who reads it may be stuck or gone: the feed goes on.
void Write(const std::string& text) { win32::WriteToStream(STDERR_FILENO, text); }

}  // namespace

CONSOLE::CONSOLE(int seconds, bool sourceKnowsItsEnd)
    : interval(seconds), knowsItsEnd(sourceKnowsItsEnd), terminal(isatty(STDERR_FILENO) == 1), next(LinesPerShow) {}

void CONSOLE::Say(const std::string& what) {
    Clear();
    Write("keldwickctl: " + SafeText(what) + "\n");
}

void CONSOLE::ShowProgress(unsigned long long lines, unsigned long long behind) {
    if (terminal ? lines < next : std::chrono::steady_clock::now() - said < interval) return;
    const std::string left = knowsItsEnd ? ", " + std::to_string(behind / MebiByte) + " MiB to go" : "";
    if (terminal) {
        next = lines + LinesPerShow;
        Write("\r\033[K" + std::to_string(lines) + " lines" + left + " ...");
        shown = true;
    } else {
        NotePause();
        Say(std::to_string(lines) + " lines so far" + left);
    }
}

void CONSOLE::Clear() {
    if (shown) Write("\r\033[K");
    shown = false;
}

void TROUBLE::Begin(const std::string& what) {
    if (!lasts) console.Say(what);
    lasts = true;
}

void TROUBLE::End() {
    if (lasts && !ending.empty()) console.Say(ending);
    lasts = false;
}

STOP_SIGNALS::STOP_SIGNALS() {
    sigset_t stops;
    sigemptyset(&stops);
    sigaddset(&stops, SIGTERM);
    sigaddset(&stops, SIGINT);
    struct sigaction hangup;  // who starts a program to live on without its terminal has it ignored
    if (sigaction(SIGHUP, nullptr, &hangup) == 0 && hangup.sa_handler != SIG_IGN) sigaddset(&stops, SIGHUP);
    sigprocmask(SIG_BLOCK, &stops, &before);
    signals = win32::DESCRIPTOR(signalfd(-1, &stops, SFD_CLOEXEC | SFD_NONBLOCK));
    if (!signals) throw COMMAND_ERROR(std::string("cannot wait for signals: ") + std::strerror(errno));
}

STOP_SIGNALS::~STOP_SIGNALS() {
    signalfd_siginfo taken;
    while (read(signals.Get(), &taken, sizeof taken) > 0) {  // or it would end the process once it is let through
    }
    sigprocmask(SIG_SETMASK, &before, nullptr);
}

bool STOP_SIGNALS::Wait(int input, std::chrono::steady_clock::time_point until, bool& ready) const {
    using namespace std::chrono;
    enum { STOP, INPUT, SLOTS };
    std::array<pollfd, SLOTS> slots = {{{signals.Get(), POLLIN, 0}, {input, POLLIN, 0}}};
    const auto now = steady_clock::now();
    const bool endless = until == steady_clock::time_point::max();
    const auto left = until <= now ? milliseconds(0) : ceil<milliseconds>(std::min(until - now, nanoseconds(hours(1))));
    const int got = poll(slots.data(), SLOTS, endless ? -1 : static_cast<int>(left.count()));
    ready = got > 0 && slots[INPUT].revents != 0;
    return got > 0 && slots[STOP].revents != 0;
}

}  // namespace tools::feed
