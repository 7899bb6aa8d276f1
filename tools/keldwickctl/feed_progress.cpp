#include "tools/keldwickctl/feed_progress.h"

#include <unistd.h>

#include <cstdio>

#include "tools/text/safe_text.h"

namespace {

constexpr unsigned long long LinesPerShow = 10000;
constexpr unsigned long long MebiByte = 1024 * 1024;

}  // namespace

FEED_PROGRESS::FEED_PROGRESS(int seconds, bool sourceKnowsItsEnd)
    : interval(seconds), knowsItsEnd(sourceKnowsItsEnd), terminal(isatty(STDERR_FILENO) == 1), next(LinesPerShow) {}

void FEED_PROGRESS::Tell(const std::string& what) {
    Clear();
    std::fprintf(stderr, "keldwickctl: %s\n", SafeText(what).c_str());
}

void FEED_PROGRESS::Show(unsigned long long lines, unsigned long long behind) {
    if (terminal ? lines < next : std::chrono::steady_clock::now() - told < interval) return;
    const std::string left = knowsItsEnd ? ", " + std::to_string(behind / MebiByte) + " MiB to go" : "";
    if (terminal) {
        next = lines + LinesPerShow;
        std::fprintf(stderr, "\r\033[K%llu lines%s ...", lines, left.c_str());
        shown = true;
    } else {
        NotePause();
        Tell(std::to_string(lines) + " lines so far" + left);
    }
}

void FEED_PROGRESS::Clear() {
    if (shown) std::fputs("\r\033[K", stderr);
    shown = false;
}
