#include "tools/keldwickctl/feed_progress.h"

#include <unistd.h>

#include "tools/text/safe_text.h"
#include "win32/files/standard_stream.h"

namespace {

constexpr unsigned long long LinesPerShow = 10000;
constexpr unsigned long long MebiByte = 1024 * 1024;

// Who reads it may be stuck or gone: the feed goes on.
void Say(const std::string& text) { win32::WriteToStream(STDERR_FILENO, text); }

}  // namespace

FEED_PROGRESS::FEED_PROGRESS(int seconds, bool sourceKnowsItsEnd)
    : interval(seconds), knowsItsEnd(sourceKnowsItsEnd), terminal(isatty(STDERR_FILENO) == 1), next(LinesPerShow) {}

void FEED_PROGRESS::Tell(const std::string& what) {
    Clear();
    Say("keldwickctl: " + SafeText(what) + "\n");
}

void FEED_PROGRESS::Show(unsigned long long lines, unsigned long long behind) {
    if (terminal ? lines < next : std::chrono::steady_clock::now() - told < interval) return;
    const std::string left = knowsItsEnd ? ", " + std::to_string(behind / MebiByte) + " MiB to go" : "";
    if (terminal) {
        next = lines + LinesPerShow;
        Say("\r\033[K" + std::to_string(lines) + " lines" + left + " ...");
        shown = true;
    } else {
        NotePause();
        Tell(std::to_string(lines) + " lines so far" + left);
    }
}

void FEED_PROGRESS::Clear() {
    if (shown) Say("\r\033[K");
    shown = false;
}
