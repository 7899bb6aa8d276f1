// The identities searched and sorted, for one who looks at them. A list is kept for a while, so that scrolling through
// it costs nothing, and only a share of the time goes into making new ones, however many are asked for.
#pragma once

#include <chrono>
#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "tools/keldwick-server/picture.h"

namespace tools {

struct QUERY {
    enum class BY : uint8_t { Since, Heard, User, Computer, Address };

    std::string search;  // words that must all be in a name or the address of the identity, in any case of letters
    BY by = BY::Since;
    bool descending = true;

    bool operator==(const QUERY&) const = default;
};

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

    bool MayWork(CLOCK::time_point now);
    void Make(const PICTURE& picture, VIEW& view, CLOCK::time_point now);

    std::list<VIEW> views;  // the one last used first
    CLOCK::time_point looked;
    CLOCK::duration worked{};  // and not yet made up for by then
};

}  // namespace tools
