#include "tools/keldwickctl/status_feeds.h"

#include <sys/stat.h>

#include <algorithm>
#include <filesystem>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_state.h"
#include "win32/files/machine_root.h"

namespace fs = std::filesystem;

namespace {

// What the file holds beyond the place, looked at now: the state tells how it was at the last mark.
unsigned long long BytesBehind(const FEED_STATE& state) {
    struct stat status;
    if (state.places.empty() || stat(state.file.c_str(), &status) != 0) return state.behind;
    const FEED_PLACE& place = state.places.back();
    const auto size = static_cast<unsigned long long>(status.st_size);
    if (status.st_ino != place.inode || status.st_dev != place.device) return state.behind + size;  // rotated away
    return size > place.offset ? size - place.offset : 0;
}

FEED_STATUS ReadFeed(const std::string& name) {
    FEED_STATUS feed;
    feed.name = name;
    feed.running = IsFeedRunning(name);
    FEED_STATE state;
    try {
        if (!LoadFeedState(name, state)) return feed;
    } catch (const COMMAND_ERROR& error) {
        feed.damage = error.what();
        return feed;
    }
    feed.source = state.source;
    feed.file = state.file;
    feed.log = state.log;
    feed.records = state.records;
    feed.skipped = state.skipped;
    feed.unreadable = state.unreadable;
    feed.behind = BytesBehind(state);
    feed.marked = state.saved;
    return feed;
}

}  // namespace

std::vector<FEED_STATUS> ReadFeeds() {
    std::vector<FEED_STATUS> feeds;
    const std::string folder = win32::MachinePath("feed");
    std::error_code error;
    for (fs::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        if (it->path().extension() == ".lock" && IsFeedName(it->path().stem().string()))
            feeds.push_back(ReadFeed(it->path().stem().string()));
    }
    if (error && error != std::errc::no_such_file_or_directory)
        throw COMMAND_ERROR("cannot look into " + folder + ": " + error.message());
    std::sort(feeds.begin(), feeds.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return feeds;
}
