#include "tools/keldwickctl/feed_lines.h"

#include <algorithm>

#include "tools/keldwickctl/feed_values.h"

void FEED_LINES::Feed(std::string_view bytes, FEED_LINE_TAKER& taker) {
    while (!bytes.empty()) {
        const size_t end = std::min(bytes.find('\n'), bytes.size());
        const bool ends = end < bytes.size();
        const size_t room =
            LargestFeedLine + 1 - std::min(line.size(), LargestFeedLine + 1);  // 1: a CR that falls away
        line.append(bytes.substr(0, std::min(end, room)));
        pending += end + (ends ? 1 : 0);
        bytes.remove_prefix(end + (ends ? 1 : 0));
        if (ends) {
            --pending;  // the line's end is none of its bytes
            End(taker);
        }
    }
}

void FEED_LINES::Finish(FEED_LINE_TAKER& taker) {
    if (pending > 0) End(taker);
}

void FEED_LINES::End(FEED_LINE_TAKER& taker) {
    constexpr size_t Beginning = 4096;
    const bool cut = pending > line.size();
    std::string_view whole = line;
    if (!cut && whole.ends_with('\r')) whole.remove_suffix(1);
    if (cut || whole.size() > LargestFeedLine)
        taker.TakeTooLong(whole.substr(0, Beginning));
    else
        taker.TakeLine(whole);
    line.clear();
    pending = 0;
}
