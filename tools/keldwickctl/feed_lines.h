// A stream of bytes taken apart into lines of bounded length.
#pragma once

#include <string>
#include <string_view>

class FEED_LINE_TAKER {
public:
    virtual ~FEED_LINE_TAKER() = default;
    virtual void TakeLine(std::string_view line) = 0;          // without its end, LF or CR LF
    virtual void TakeTooLong(std::string_view beginning) = 0;  // how a line of more than LargestFeedLine began
};

class FEED_LINES {
public:
    void Feed(std::string_view bytes, FEED_LINE_TAKER& taker);
    void Finish(FEED_LINE_TAKER& taker);  // what is left is the last line

    unsigned long long Pending() const { return pending; }  // bytes of the line that has not ended yet

private:
    void End(FEED_LINE_TAKER& taker);

    std::string line;  // of a line that is too long, its beginning only
    unsigned long long pending = 0;
};
