#include "tools/keldwickctl/status_feeds.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_state.h"
#include "tools/keldwickctl/rotated_files.h"
#include "win32/files/machine_root.h"

namespace fs = std::filesystem;

namespace {

// What a file holds beyond the place that is its; all of it when none is.
unsigned long long BytesBeyond(const struct stat& file, const std::vector<FEED_PLACE>& places) {
    const auto size = static_cast<unsigned long long>(file.st_size);
    for (const FEED_PLACE& place : places)
        if (place.device == file.st_dev && place.inode == file.st_ino) return size - std::min(size, place.offset);
    return size;
}

// Looked at now: the state tells how it was at the last mark. Rotated files count when the state has a place in them,
// or they are newer than what was read.
unsigned long long BytesBehind(const FEED_STATE& state) {
    struct stat file;
    unsigned long long bytes = 0;
    if (stat(state.file.c_str(), &file) == 0)
        bytes = BytesBeyond(file, state.places);
    else if (errno != ENOENT)
        return state.behind;
    for (const ROTATED_FILE& each : RotatedFiles(state.file)) {
        if (stat(each.name.c_str(), &file) != 0) continue;
        const bool has = std::any_of(state.places.begin(), state.places.end(), [&](const FEED_PLACE& place) {
            return place.device == each.device && place.inode == each.inode;
        });
        if (has || (state.written != 0 && each.written > state.written)) bytes += BytesBeyond(file, state.places);
    }
    return bytes;
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
    feed.behind = state.file.empty() ? 0 : BytesBehind(state);
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
