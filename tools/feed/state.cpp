#include "tools/feed/state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "tools/common/values.h"
#include "win32/eventlog/evt_record.h"
#include "win32/files/file_lock.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"

using nlohmann::json;

namespace tools::feed {
namespace {

constexpr size_t MaxStateBytes = 64 * 1024;
constexpr const char* KeptFiles[] = {"state", "state.damaged", "aside", "aside.old"};  // what is left of a feed's runs

unsigned long long Number(const json& object, const char* name, unsigned long long most = UINT64_MAX) {
    const auto found = object.find(name);
    if (found == object.end() || !found->is_number_unsigned() || found->get<uint64_t>() > most)
        throw COMMAND_ERROR(name);
    return found->get<uint64_t>();
}

unsigned long long CountOf(const json& object, const char* name) { return Number(object, name, INT64_MAX); }

// Objects are filled member by member: the library's constructor from a list loses what it has when memory ends.
void AddPlace(const PLACE& place, json& object) {
    object["device"] = place.device;
    object["inode"] = place.inode;
    object["offset"] = place.offset;
    object["tail"] = place.tail;
}

PLACE ReadPlace(const json& object) {
    return {Number(object, "device"), Number(object, "inode"), Number(object, "offset"), Number(object, "tail")};
}

void ReadState(const json& object, STATE& state) {
    state.source = object.value("source", "");
    state.file = object.value("file", "");
    state.log = object.value("log", "");
    state.saved = object.value("saved", "");
    state.behind = CountOf(object, "behind");
    state.nextRecord = Number(object, "nextRecord");
    state.records = CountOf(object, "records");
    state.skipped = CountOf(object, "skipped");
    state.unreadable = CountOf(object, "unreadable");
    const auto earlier = object.find("earlier");
    if (earlier != object.end() && earlier->is_array())
        for (const json& each : *earlier) state.places.push_back(ReadPlace(each));
    if (object.contains("written")) state.written = Number(object, "written");
    if (object.contains("offset")) state.places.push_back(ReadPlace(object));
}

std::string StateText(const STATE& state) {
    json object = json::object();
    object["source"] = state.source;
    object["file"] = state.file;
    object["log"] = state.log;
    object["records"] = state.records;
    object["skipped"] = state.skipped;
    object["unreadable"] = state.unreadable;
    object["behind"] = state.behind;
    object["nextRecord"] = state.nextRecord;
    object["written"] = state.written;
    object["saved"] = IsoTime(win32::SecondsNow());
    if (!state.places.empty()) {
        AddPlace(state.places.back(), object);
        json& earlier = object["earlier"] = json::array();
        for (size_t i = 0; i + 1 < state.places.size(); ++i)
            AddPlace(state.places[i], earlier.emplace_back(json::object()));
    }
    return object.dump(1, ' ', true, json::error_handler_t::replace) + "\n";
}

// As a lock of the descriptor, which, unlike flock's, can be asked about without being taken.
struct flock WholeFile(short type) {
    struct flock lock = {};
    lock.l_type = type;
    lock.l_whence = SEEK_SET;
    return lock;
}

// A file system that cannot do this for folders need not.
bool SyncFolder(const std::string& path) {
    const win32::DESCRIPTOR folder = win32::OpenRootFolder(path);
    return folder && (fsync(folder.Get()) == 0 || errno == EINVAL);
}

enum class FOUND { STATE, NONE, DAMAGED, UNREADABLE };

// UNREADABLE: errno says why.
FOUND ReadBytes(const std::string& path, std::string& bytes) {
    const win32::DESCRIPTOR file(win32::OpenRootFile(path, O_RDONLY));
    if (!file)
        return errno == ENOENT ? FOUND::NONE : errno == ELOOP || errno == EISDIR ? FOUND::DAMAGED : FOUND::UNREADABLE;
    bytes.resize(MaxStateBytes);
    const ssize_t got = pread(file.Get(), bytes.data(), bytes.size(), 0);
    bytes.resize(static_cast<size_t>(std::max<ssize_t>(got, 0)));
    return got < 0 ? FOUND::UNREADABLE : FOUND::STATE;
}

FOUND FindState(const std::string& path, STATE& state, std::string& damage) {
    std::string text;
    const FOUND found = ReadBytes(path, text);
    if (found == FOUND::DAMAGED) damage = win32::FileFault(errno);
    if (found != FOUND::STATE) return found;
    const json object = json::parse(text, nullptr, false);
    try {
        if (!object.is_object()) throw COMMAND_ERROR("JSON");
        STATE whole;
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
    constexpr size_t MaxNameBytes = 64;
    return !name.empty() && name.size() <= MaxNameBytes && name[0] != '.' &&
           name.find_first_not_of("ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789_.-") ==
               std::string::npos;
}

STATE_FILE::STATE_FILE(const std::string& feed, KIND feedKind) : name(feed), kind(feedKind) {
    const std::string folder = win32::MachinePath("feed");
    if (!win32::MakeRootFolder(folder, 0700) && errno != EEXIST) FailFile("cannot make " + folder);
    const std::string path = Path("lock");
    lock = win32::DESCRIPTOR(win32::OpenRootFile(path, O_RDWR | O_CREAT, 0600));
    if (!lock) FailFile("cannot make " + path);
    struct flock wanted = WholeFile(kind == KIND::FOLLOWER ? F_WRLCK : F_RDLCK);
    if (fcntl(lock.Get(), F_OFD_SETLK, &wanted) == 0) return;
    if (errno == EAGAIN || errno == EACCES)
        throw COMMAND_ERROR("the feed " + name + " is running already (--name gives another one its own name)");
    FailFile("cannot lock " + path);
}

bool IsRunning(const std::string& name) {
    const win32::DESCRIPTOR file(win32::OpenRootFile(FilePath(name, "lock"), O_RDONLY));
    struct flock other = WholeFile(F_WRLCK);
    return file && fcntl(file.Get(), F_OFD_GETLK, &other) == 0 && other.l_type != F_UNLCK;
}

bool IsKept(const std::string& name) {
    struct stat about;  // of a link itself: that there is one is damage, not nothing
    const auto isThere = [&](const char* kind) { return lstat(FilePath(name, kind).c_str(), &about) == 0; };
    return IsFeedName(name) && std::any_of(std::begin(KeptFiles), std::end(KeptFiles), isThere);
}

void Forget(const std::string& name) {
    if (!IsKept(name)) throw COMMAND_ERROR("there is no feed " + name + " (status names those that there are)");
    const STATE_FILE held(name);  // as one that follows a file: no other runs beside it
    for (const char* kind : KeptFiles)
        if (!win32::RemoveRootFile(FilePath(name, kind)) && errno != ENOENT)
            FailFile("cannot remove " + FilePath(name, kind));
}

std::string FilePath(const std::string& name, const char* kind) {
    return win32::MachinePath("feed/" + name + "." + kind);
}

bool LoadState(const std::string& name, STATE& state) {
    const std::string path = FilePath(name, "state");
    std::string damage;
    const FOUND found = FindState(path, state, damage);
    if (found == FOUND::UNREADABLE) FailFile("cannot read " + path);
    if (found == FOUND::DAMAGED)
        throw COMMAND_ERROR(path + " is damaged (" + damage +
                            "); without it the feed starts over and writes again what is in the log already");
    return found == FOUND::STATE;
}

TURN::TURN(const std::string& name)
    : file(win32::OpenRootFile(FilePath(name, "writing"), O_RDWR | O_CREAT, 0600)),
      taken(file && win32::TakeFileLock(file.Get(), LOCK_EX)) {}

bool STATE_FILE::Load(STATE& state, std::string& damage) const {
    damage.clear();
    if (kind == KIND::FOLLOWER) return LoadState(name, state);
    const TURN turn(name);
    if (!turn) FailFile("cannot make or lock " + Path("writing"));
    std::string fault;
    const std::string path = Path("state");
    if (FindState(path, state, fault) != FOUND::DAMAGED) return LoadState(name, state);
    if (!win32::RenameRootFile(path, Path("state.damaged"))) FailFile("cannot set aside the damaged " + path);
    damage =
        path + " is damaged (" + fault + "): set aside as " + Path("state.damaged") + ", the counts start from zero";
    return false;
}

bool STATE_FILE::Save(STATE& state, COUNTS& added) const {
    const TURN turn(name);
    if (!turn) return false;
    const std::string path = Path("state");
    STATE before;
    std::string damage;
    const FOUND found = FindState(path, before, damage);
    if (found == FOUND::UNREADABLE) return false;
    if (found == FOUND::DAMAGED) before = state;
    state.records = before.records + added.records;
    state.skipped = before.skipped + added.skipped;
    state.unreadable = before.unreadable + added.unreadable;
    win32::REPLACEMENT_FILE fresh(path, 0600, ".new");
    if (!fresh || !fresh.Write(StateText(state)) || !fresh.TakePlace()) return false;
    added = {};
    return SyncFolder(win32::MachinePath("feed"));
}

ASIDE::ASIDE(const std::string& name) : feed(name), path(FilePath(name, "aside")) {}

void ASIDE::Keep(const std::string& reason, std::string_view line) {
    constexpr size_t maxLine = 64 * 1024;
    std::string entry = "# " + IsoTime(win32::SecondsNow()) + " " + SafeText(reason);
    if (line.size() > maxLine) entry += " (its first 64 KiB)";
    entry += '\n';
    if (!line.empty()) entry.append(line.substr(0, maxLine)) += '\n';
    const TURN turn(feed);
    if (!turn) return;
    struct stat about;
    if (stat(path.c_str(), &about) == 0 && static_cast<size_t>(about.st_size) + entry.size() > MaxBytes / 2)
        win32::RenameRootFile(path, path + ".old");
    const win32::DESCRIPTOR file(win32::OpenRootFile(path, O_WRONLY | O_APPEND | O_CREAT, 0600));
    // Cut back when it does not fit the disk, so that the next entry begins on a line of its own.
    if (file && fstat(file.Get(), &about) == 0 &&
        write(file.Get(), entry.data(), entry.size()) != static_cast<ssize_t>(entry.size()) &&
        ftruncate(file.Get(), about.st_size) != 0)
        win32::RemoveRootFile(path);
}

}  // namespace tools::feed
