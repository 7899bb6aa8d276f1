// What a feed could not read, kept for a look at it: feed/NAME.aside and, of what came before, NAME.aside.old.
#pragma once

#include <string>
#include <string_view>

// Each thing is a comment line with time and reason and the line itself, cut where it is long. Both files together stay
// within Most bytes; the oldest go first. A disk that is full costs the keeping, never the feed. Streams
// of one name keep theirs one after another.
class FEED_ASIDE {
public:
    static constexpr size_t Most = 1024 * 1024;

    explicit FEED_ASIDE(const std::string& name);
    void Keep(const std::string& reason, std::string_view line);

private:
    const std::string feed, path;
};
