#include "tools/keldwickctl/status_feeds.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <filesystem>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/feed_follower.h"
#include "tools/keldwickctl/feed_state.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"

namespace fs = std::filesystem;

namespace {

// By the file's size alone, or else as it was at the last mark.
unsigned long long UnreadBytes(const FEED_STATE& state) {
    struct stat about;
    if (state.places.size() != 1 || stat(state.file.c_str(), &about) != 0) return state.behind;
    const FEED_PLACE& place = state.places.front();
    const bool same = S_ISREG(about.st_mode) && about.st_dev == place.device && about.st_ino == place.inode;
    const auto size = static_cast<unsigned long long>(about.st_size);
    return same && size >= place.offset ? size - place.offset : state.behind;
}

// As a feed that goes on now would find it: the state tells how it was at the last mark. But a state that another
// account may have written must not have root open what it names, nor tell of its content by the fingerprint.
unsigned long long BytesBehind(const FEED_STATE& state) {
    if (win32::OtherOwner()) return UnreadBytes(state);
    try {
        FEED_FOLLOWER follower(state.file);
        follower.Resume(state);
        return follower.Behind();
    } catch (const COMMAND_ERROR&) {  // the file may not be read
        return state.behind;
    }
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
    std::vector<std::string> names;
    if (!win32::ListRootFolder(folder, names) && errno != ENOENT)
        throw COMMAND_ERROR("cannot look into " + folder + ": " + win32::FileFault(errno));
    for (const fs::path file : names)
        if (file.extension() == ".lock" && IsFeedName(file.stem().string()))
            feeds.push_back(ReadFeed(file.stem().string()));
    std::sort(feeds.begin(), feeds.end(), [](const auto& a, const auto& b) { return a.name < b.name; });
    return feeds;
}
