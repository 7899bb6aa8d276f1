// What the page and other programs ask for over HTTP, made of the picture: JSON, the figures for Prometheus, the events
// of the page's stream. Knows nothing of connections.
#pragma once

#include <functional>
#include <map>
#include <optional>
#include <string>

#include "tools/keldwick-server/picture.h"
#include "tools/keldwick-server/views.h"

namespace tools {

struct API_ANSWER {
    unsigned status = 200;
    std::string type = "application/json";
    std::string body;
};

class API {
public:
    using PARAMETERS = std::map<std::string, std::string>;

    explicit API(const PICTURE& shown) : picture(shown) {}

    // Nothing: there is no such path.
    std::optional<API_ANSWER> Get(const std::string& path, const PARAMETERS& parameters, TIME now);

    // The first event of a stream, and the next of all streams: the totals, the last seconds and, in the next, the
    // reports since the one before. Next: empty when there is nothing new.
    std::string FirstEvent(TIME now) const;
    std::string NextEvent(TIME now);

private:
    API_ANSWER Limited(const std::function<API_ANSWER()>& make);
    API_ANSWER Identities(const PARAMETERS& parameters, TIME now);

    const PICTURE& picture;
    VIEWS views;
    WORK_SHARE answers{std::chrono::milliseconds(400)};  // making them, once they are found
    uint64_t toldReport = 0, toldVersion = 0;
    int64_t toldSecond = 0;
};

}  // namespace tools
