// The identities searched and sorted, for one who looks at them. A list is kept for a while, so that scrolling through
// it costs nothing, and only a share of the time goes into making new ones, however many are asked for.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "tools/keldwick-server/picture.h"
#include "tools/keldwick-server/work_share.h"

namespace tools {

struct QUERY {
    enum class BY : uint8_t { Since, Heard, User, Computer, Address };

    std::vector<std::string> words;  // with letter case folded, that must all be in what is searched of the identity
    BY by = BY::Since;
    bool descending = true;

    bool operator==(const QUERY&) const = default;
};

// The words of a search.
std::vector<std::string> WordsOf(const std::string& search);

class VIEWS {
public:
    using CLOCK = std::chrono::steady_clock;

    struct LIST {
        std::vector<uint64_t> numbers;  // of the identities in order; those removed since may be among them
        uint64_t version = 0;           // of the picture that it was made of
    };

    // Null: too much was asked for in this second. Valid until the next call.
    const LIST* Find(const PICTURE& picture, const QUERY& query, CLOCK::time_point now);

private:
    struct VIEW {
        QUERY query;
        LIST list;
        CLOCK::time_point made;
        CLOCK::duration cost{};
    };

    void Make(const PICTURE& picture, VIEW& view, CLOCK::time_point now);

    std::list<VIEW> views;  // the one last used first
    WORK_SHARE share{std::chrono::milliseconds(400)};
};

}  // namespace tools
