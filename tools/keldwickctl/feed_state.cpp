#include "tools/keldwickctl/feed_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <nlohmann/json.hpp>

#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/event_values.h"
#include "win32/eventlog/evt_record.h"
#include "win32/files/file_owner.h"
#include "win32/files/machine_root.h"

using nlohmann::json;

namespace {

constexpr size_t LargestState = 64 * 1024;

[[noreturn]] void Fail(const std::string& act, const std::string& path) {
    throw COMMAND_ERROR("cannot " + act + " " + path + ": " + std::strerror(errno));
}

unsigned long long Number(const json& object, const char* name) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_number_unsigned()) throw COMMAND_ERROR(name);
    return found->get<unsigned long long>();
}

json PlaceObject(const FEED_PLACE& place) {
    return {{"device", place.device}, {"inode", place.inode}, {"offset", place.offset}, {"tail", place.tail}};
}

FEED_PLACE ReadPlace(const json& object) {
    return {Number(object, "device"), Number(object, "inode"), Number(object, "offset"), Number(object, "tail")};
}

void ReadState(const json& object, FEED_STATE& state) {
    state.source = object.value("source", "");
    state.file = object.value("file", "");
    state.log = object.value("log", "");
    state.saved = object.value("saved", "");
    state.behind = Number(object, "behind");
    state.nextRecord = Number(object, "nextRecord");
    state.records = Number(object, "records");
    state.skipped = Number(object, "skipped");
    state.unreadable = Number(object, "unreadable");
    const auto earlier = object.find("earlier");
    if (earlier != object.end() && earlier->is_array())
        for (const json& each : *earlier) state.places.push_back(ReadPlace(each));
    if (object.contains("written")) state.written = Number(object, "written");
    if (object.contains("offset")) state.places.push_back(ReadPlace(object));
}

std::string StateText(const FEED_STATE& state) {
    json object = {{"source", state.source},   {"file", state.file},
                   {"log", state.log},         {"records", state.records},
                   {"skipped", state.skipped}, {"unreadable", state.unreadable},
                   {"behind", state.behind},   {"nextRecord", state.nextRecord},
                   {"written", state.written}, {"saved", IsoTime(win32::SecondsNow())}};
    if (!state.places.empty()) {
        object.update(PlaceObject(state.places.back()));
        object["earlier"] = json::array();
        for (size_t i = 0; i + 1 < state.places.size(); ++i) object["earlier"].push_back(PlaceObject(state.places[i]));
    }
    return object.dump(1, ' ', true, json::error_handler_t::replace) + "\n";
}

bool WriteAll(int fd, const std::string& bytes) {
    for (size_t done = 0; done < bytes.size();) {
        const ssize_t put = write(fd, bytes.data() + done, bytes.size() - done);
        if (put < 0 && errno == EINTR) continue;
        if (put < 0) return false;
        done += static_cast<size_t>(put);
    }
    return true;
}

// As a lock of the descriptor, which, unlike flock's, can be asked about without being taken.
struct flock WholeFile(short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

void MakeFolder(const std::string& path) {
    const bool made = mkdir(path.c_str(), 0700) == 0;
    if (!made && errno != EEXIST) Fail("make", path);
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
    if (folder < 0) Fail(made ? "open" : "make", path);
    if (made) win32::GiveToFolderOwner(folder, path);
    close(folder);
}

// A file system that cannot do this for folders need not.
bool SyncFolder(const std::string& path) {
    const int folder = open(path.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (folder < 0) return false;
    const bool synced = fsync(folder) == 0 || errno == EINVAL;
    const int why = errno;
    close(folder);
    errno = why;
    return synced;
}

enum class FOUND { STATE, NONE, DAMAGED, UNREADABLE };

// UNREADABLE: errno says why.
FOUND ReadBytes(const std::string& path, std::string& bytes) {
    const int fd = open(path.c_str(), O_RDONLY | O_NONBLOCK | O_NOFOLLOW | O_CLOEXEC);
    if (fd < 0) return errno == ENOENT ? FOUND::NONE : errno == ELOOP ? FOUND::DAMAGED : FOUND::UNREADABLE;
    struct stat about = {};
    bytes.resize(LargestState);
    ssize_t got = -1;
    int why = 0;
    const bool regular = fstat(fd, &about) == 0 && S_ISREG(about.st_mode);
    if (regular && (got = pread(fd, bytes.data(), bytes.size(), 0)) < 0) why = errno;
    close(fd);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    errno = why;
    return why != 0 ? FOUND::UNREADABLE : regular ? FOUND::STATE : FOUND::DAMAGED;
}

FOUND FindState(const std::string& path, FEED_STATE& state, std::string& damage) {
    std::string text;
    damage = "not a regular file";
    const FOUND found = ReadBytes(path, text);
    if (found != FOUND::STATE) return found;
    const json object = json::parse(text, nullptr, false);
    try {
        if (!object.is_object()) throw COMMAND_ERROR("JSON");
        FEED_STATE whole;
        ReadState(object, whole);
        state = whole;
    } catch (const std::exception& fault) {
        damage = fault.what();
        return FOUND::DAMAGED;
    }
    return FOUND::STATE;
}

}  // namespace

bool IsFeedName(const std::string& name) {
    constexpr size_t LongestName = 64;
    return !name.empty() && name.size() <= LongestName && name[0] != '.' &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-") ==
               std::string::npos;
}

FEED_STATE_FILE::FEED_STATE_FILE(const std::string& feed, FEED_KIND feedKind) : name(feed), kind(feedKind) {
    const std::string folder = win32::MachinePath("feed");
    MakeFolder(folder);
    const std::string path = Path("lock");
    lock = open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (lock < 0) Fail("make", path);
    win32::GiveToFolderOwner(lock, path);
    struct flock wanted = WholeFile(kind == FEED_KIND::FOLLOWER ? F_WRLCK : F_RDLCK);
    if (fcntl(lock, F_OFD_SETLK, &wanted) == 0) return;
    const bool held = errno == EAGAIN || errno == EACCES;
    close(lock);
    if (held) throw COMMAND_ERROR("the feed " + name + " is running already (--name gives another one its own name)");
    Fail("lock", path);
}

FEED_STATE_FILE::~FEED_STATE_FILE() { close(lock); }

bool IsFeedRunning(const std::string& name) {
    const int fd = open(FeedPath(name, "lock").c_str(), O_RDONLY | O_CLOEXEC | O_NOFOLLOW | O_NONBLOCK);
    if (fd < 0) return false;
    struct flock other = WholeFile(F_WRLCK);
    const bool held = fcntl(fd, F_OFD_GETLK, &other) == 0 && other.l_type != F_UNLCK;  // of a FIFO, never
    close(fd);
    return held;
}

std::string FeedPath(const std::string& name, const char* kind) {
    return win32::MachinePath("feed/" + name + "." + kind);
}

bool LoadFeedState(const std::string& name, FEED_STATE& state) {
    const std::string path = FeedPath(name, "state");
    std::string damage;
    const FOUND found = FindState(path, state, damage);
    if (found == FOUND::UNREADABLE) Fail("read", path);
    if (found == FOUND::DAMAGED)
        throw COMMAND_ERROR(path + " is damaged (" + damage +
                            "); without it the feed begins anew and writes again what is in the log already");
    return found == FOUND::STATE;
}

FEED_TURN::FEED_TURN(const std::string& name)
    : fd(open(FeedPath(name, "writing").c_str(), O_RDWR | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0600)) {
    if (fd < 0) return;
    win32::GiveToFolderOwner(fd, FeedPath(name, "writing"));
    while (flock(fd, LOCK_EX) != 0 && errno == EINTR) {
    }
}

FEED_TURN::~FEED_TURN() {
    const int why = errno;
    if (fd >= 0) close(fd);
    errno = why;
}

bool FEED_STATE_FILE::Load(FEED_STATE& state, std::string& damage) const {
    damage.clear();
    if (kind == FEED_KIND::FOLLOWER) return LoadFeedState(name, state);
    const FEED_TURN turn(name);
    if (!turn) Fail("make", Path("writing"));
    std::string fault;
    const std::string path = Path("state");
    if (FindState(path, state, fault) != FOUND::DAMAGED) return LoadFeedState(name, state);
    if (std::rename(path.c_str(), Path("state.damaged").c_str()) != 0) Fail("set aside the damaged", path);
    damage = path + " is damaged (" + fault + "): set aside as " + Path("state.damaged") + ", the counts begin anew";
    return false;
}

bool FEED_STATE_FILE::Save(FEED_STATE& state, FEED_COUNTS& added) const {
    const FEED_TURN turn(name);
    if (!turn) return false;
    const std::string path = Path("state"), fresh = Path("state.new");
    FEED_STATE before;
    std::string damage;
    const FOUND found = FindState(path, before, damage);
    if (found == FOUND::UNREADABLE) return false;
    if (found == FOUND::DAMAGED) before = state;
    state.records = before.records + added.records;
    state.skipped = before.skipped + added.skipped;
    state.unreadable = before.unreadable + added.unreadable;
    unlink(fresh.c_str());  // of a feed that was killed
    const int fd = open(fresh.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC | O_NOFOLLOW, 0600);
    if (fd < 0) return false;
    win32::TakeOver(fd, path);
    const bool whole = WriteAll(fd, StateText(state)) && fsync(fd) == 0;
    const int why = errno;
    close(fd);
    errno = why;
    if (!whole || std::rename(fresh.c_str(), path.c_str()) != 0) return false;
    added = {};
    return SyncFolder(win32::MachinePath("feed"));
}
