#include "win32/files/root_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <cstring>
#include <filesystem>

#include "win32/files/machine_root.h"
#include "win32/text/numbers.h"

namespace win32 {
namespace {

constexpr int MaxLinks = 40;   // the kernel's own bound
constexpr int MaxRaces = 100;  // against others that make and remove the file meanwhile
constexpr int FolderFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

thread_local std::string refusal;

// Sets errno to ELOOP and keeps "PATH REASON" as what this thread refused last.
void Refuse(const std::string& path, const std::string& reason) {
    refusal = path + " " + reason;
    errno = ELOOP;
}

std::string Tidy(const std::string& path) {
    const bool tidy = path.starts_with('/') && path.find("//") == path.npos && path.find("/.") == path.npos;
    std::error_code error;
    std::string whole = tidy ? path : std::filesystem::absolute(path, error).lexically_normal().string();
    while (whole.size() > 1 && whole.ends_with('/')) whole.pop_back();
    return whole;
}

nlink_t NamesIn(int folder, const char* name, const struct stat& opened) {
    struct stat named;
    const bool same = fstatat(folder, name, &named, AT_SYMLINK_NOFOLLOW) == 0 && named.st_dev == opened.st_dev &&
                      named.st_ino == opened.st_ino;
    return same ? named.st_nlink : 0;
}

// Where a link leads; empty: errno says why it is not followed.
std::string Target(int folder, const std::string& name, const DESCRIPTOR& link, const struct stat& about,
                   const std::string& path) {
    const bool own = about.st_uid == 0 || about.st_uid == geteuid();
    // Another account may have given a link of the administrator's a second name, here.
    if (!own || NamesIn(folder, name.c_str(), about) != 1) {
        Refuse(path, std::string(own ? "is a link with a second name" : "is a link of another account") +
                         "; in a machine root root's links and one's own are followed");
        return {};
    }
    char target[PATH_MAX];
    const ssize_t length = readlinkat(link.Get(), "", target, sizeof(target));
    return length > 0 ? std::string(target, static_cast<size_t>(length)) : std::string();
}

// Goes on from a folder along a path relative to it; `done` is where that is, for messages.
DESCRIPTOR Walk(DESCRIPTOR at, std::string path, std::string done) {
    for (int links = 0; at && !path.empty();) {
        const size_t end = path.find('/');
        const std::string name = path.substr(0, end);
        path.erase(0, end == path.npos ? end : end + 1);
        if (name.empty() || name == ".") continue;
        DESCRIPTOR next(openat(at.Get(), name.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
        struct stat about;
        if (!next || fstat(next.Get(), &about) != 0) return DESCRIPTOR();
        if (S_ISDIR(about.st_mode)) {
            at = std::move(next);
            done += "/" + name;
            continue;
        }
        errno = ENOTDIR;
        if (!S_ISLNK(about.st_mode)) return DESCRIPTOR();
        if (++links > MaxLinks) Refuse(done + "/" + name, "leads through too many links");
        if (links > MaxLinks) return DESCRIPTOR();
        const std::string target = Target(at.Get(), name, next, about, done + "/" + name);
        if (target.empty()) return DESCRIPTOR();
        if (target[0] == '/') {
            at = DESCRIPTOR(open("/", FolderFlags));
            done.clear();
        }
        path = target + "/" + path;
    }
    return at;
}

// The base that is trusted, and the rest of the tidy path below it.
DESCRIPTOR Base(const std::string& whole, std::string& rest, std::string& base) {
    base = IsInMachineRoot(whole) ? MachineRoot() : std::string();
    rest = whole.substr(std::min(base.size() + 1, whole.size()));
    return DESCRIPTOR(open(base.empty() ? "/" : base.c_str(), FolderFlags));
}

}  // namespace

// A name with the folder it lies in held open: the root's owner cannot lead elsewhere what is done with it from here
// on.
class ROOT_PLACE {
public:
    // Goes from the machine root to the path's folder, step by step. A folder on the way may be a link when the link is
    // root's or the calling user's: the administrator's own. Other accounts' links are refused. A path outside the
    // machine root is taken as its caller named it, unless CHECKED asks for the same steps from the file system's root.
    enum OUTSIDE { AS_NAMED, CHECKED };
    explicit ROOT_PLACE(const std::string& path, OUTSIDE outside = AS_NAMED);

    explicit operator bool() const { return found; }  // false: errno says why
    bool Checked() const { return static_cast<bool>(folder); }

    // For the calls whose names end in "at".
    int Folder() const { return folder ? folder.Get() : AT_FDCWD; }
    const char* Name() const { return name.c_str(); }

    // How many names the open file has, if this is one of them now; 0: the name stands for another file, or for none.
    nlink_t NamesOf(const struct stat& opened) const { return NamesIn(Folder(), Name(), opened); }

private:
    DESCRIPTOR folder;
    std::string name;
    bool found = false;
};

ROOT_PLACE::ROOT_PLACE(const std::string& path, OUTSIDE outside) : name(path) {
    if (outside == AS_NAMED && !IsInMachineRoot(path)) {
        refusal.clear();
        found = true;
        return;
    }
    std::string rest, base;
    DESCRIPTOR start = Base(Tidy(path), rest, base);
    const size_t slash = rest.rfind('/');
    name = slash == rest.npos ? rest : rest.substr(slash + 1);
    if (start) folder = Walk(std::move(start), slash == rest.npos ? std::string() : rest.substr(0, slash), base);
    found = static_cast<bool>(folder);
}

namespace {

// The folder itself, reached by the same steps; an O_PATH descriptor. None: errno says why.
DESCRIPTOR ReachFolder(const std::string& path) {
    std::string rest, base;
    DESCRIPTOR start = Base(Tidy(path), rest, base);
    return start ? Walk(std::move(start), rest, base) : DESCRIPTOR();
}

// What may not be given stays.
void Give(int descriptor, const struct stat& to) {
    struct stat now;
    if (fstat(descriptor, &now) != 0 || (now.st_uid == to.st_uid && now.st_gid == to.st_gid)) return;
    if (fchown(descriptor, to.st_uid, to.st_gid) != 0) return;
}

// For what this process has made just now.
void GiveToFolderOwner(int descriptor, const ROOT_PLACE& place) {
    struct stat about;
    if (geteuid() == 0 && place.Checked() && fstat(place.Folder(), &about) == 0) Give(descriptor, about);
}

const char* KindOf(mode_t mode) {
    if (S_ISLNK(mode)) return "a link";
    if (S_ISFIFO(mode)) return "a pipe";
    return S_ISSOCK(mode) ? "a socket" : "a device";
}

void RefuseKind(const std::string& path, mode_t mode) {
    if (S_ISDIR(mode))
        errno = EISDIR;
    else
        Refuse(path, std::string("is ") + KindOf(mode) + "; in a machine root only plain files are opened");
}

// The open could not be done: when something else than a plain file stands there, that is the reason.
void ExplainFailure(const std::string& path, const ROOT_PLACE& place) {
    const int why = errno;
    struct stat about;
    if (fstatat(place.Folder(), place.Name(), &about, AT_SYMLINK_NOFOLLOW) == 0 && !S_ISREG(about.st_mode))
        RefuseKind(path, about.st_mode);
    else
        errno = why;
}

enum class FOUND { GOOD, REFUSED, GONE };

// Of a file that was there. Asked of the name once more, since another name may have come and gone between.
FOUND Check(int descriptor, const std::string& path, const ROOT_PLACE& place) {
    struct stat about;
    if (fstat(descriptor, &about) != 0) return FOUND::REFUSED;
    if (!S_ISREG(about.st_mode)) {
        RefuseKind(path, about.st_mode);
        return FOUND::REFUSED;
    }
    const nlink_t names = place.NamesOf(about);
    if (names > 1) Refuse(path, "has another name, by a hard link; in a machine root only files with one are opened");
    return names > 1 ? FOUND::REFUSED : names == 0 ? FOUND::GONE : FOUND::GOOD;
}

int OpenExisting(const std::string& path, const ROOT_PLACE& place, int flags) {
    for (int race = 0; race < MaxRaces; ++race) {
        DESCRIPTOR file(openat(place.Folder(), place.Name(), flags));
        if (!file && place.Checked() && errno != ENOENT) ExplainFailure(path, place);
        if (!file) return -1;
        const FOUND found = place.Checked() ? Check(file.Get(), path, place) : FOUND::GOOD;
        if (found == FOUND::GOOD) return file.Release();
        if (found == FOUND::REFUSED) return -1;
    }
    errno = EBUSY;
    return -1;
}

// rename that never replaces; EEXIST for a target that is there.
bool RenameToFree(int fromFolder, const char* from, int toFolder, const char* to) {
    if (renameat2(fromFolder, from, toFolder, to, RENAME_NOREPLACE) == 0) return true;
    if (errno != EINVAL && errno != ENOSYS) return false;
    // The file system cannot do it in one step: a second name, then the first goes away.
    return linkat(fromFolder, from, toFolder, to, 0) == 0 && unlinkat(fromFolder, from, 0) == 0;
}

bool WriteAll(int descriptor, std::string_view bytes) {
    while (!bytes.empty()) {
        const ssize_t count = write(descriptor, bytes.data(), bytes.size());
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        bytes.remove_prefix(static_cast<size_t>(count));
    }
    return true;
}

std::string RandomEnding() {
    unsigned char bytes[8];
    if (getrandom(bytes, sizeof(bytes), 0) < 0) return {};
    std::string text = ".";
    for (const unsigned char byte : bytes) AppendHex(text, byte);
    return text;
}

}  // namespace

bool IsInMachineRoot(const std::string& path) { return Tidy(path).starts_with(MachinePath("")); }

std::optional<uid_t> OtherOwner() {
    struct stat root;
    const bool others = geteuid() == 0 && stat(MachinePath("").c_str(), &root) == 0 && root.st_uid != 0;
    return others ? std::optional(root.st_uid) : std::nullopt;
}

FILE_IDENTITY IdentityOf(const struct stat& status) {
    const auto since1970 = [](const timespec& time) {
        return std::chrono::seconds(time.tv_sec) + std::chrono::nanoseconds(time.tv_nsec);
    };
    return {status.st_dev, status.st_ino, status.st_size, since1970(status.st_mtim), since1970(status.st_ctim)};
}

std::string FileFault(int number) { return number == ELOOP && !refusal.empty() ? refusal : std::strerror(number); }

int OpenRootFile(const std::string& path, int flags, mode_t mode, bool* made) {
    if (made != nullptr) *made = false;
    const ROOT_PLACE place(path);
    if (!place) return -1;
    flags |= O_CLOEXEC | O_NOCTTY;
    if (place.Checked()) flags |= O_NOFOLLOW | O_NONBLOCK;
    const bool creates = (flags & O_CREAT) != 0, onlyNew = creates && (flags & O_EXCL) != 0;
    flags &= ~(O_CREAT | O_EXCL);
    for (int race = 0; race < MaxRaces; ++race) {
        const int found = onlyNew ? -1 : OpenExisting(path, place, flags);
        if (found >= 0 || (!onlyNew && (errno != ENOENT || !creates))) return found;
        const int fresh = openat(place.Folder(), place.Name(), flags | O_CREAT | O_EXCL, mode);
        if (fresh >= 0) {
            if (made != nullptr) *made = true;
            GiveToFolderOwner(fresh, place);
            return fresh;
        }
        if (errno != EEXIST || onlyNew) return -1;
    }
    return -1;
}

bool ReadToEnd(int descriptor, size_t most, std::string& bytes) {
    char buffer[16 * 1024];
    for (bytes.clear(); bytes.size() <= most;) {
        const ssize_t count = read(descriptor, buffer, std::min(sizeof(buffer), most + 1 - bytes.size()));
        if (count < 0 && errno == EINTR) continue;
        if (count < 0) return false;
        if (count == 0) break;
        bytes.append(buffer, static_cast<size_t>(count));
    }
    return true;
}

bool MakeRootFolder(const std::string& path, mode_t mode) {
    const ROOT_PLACE place(path);
    if (!place) return false;
    if (mkdirat(place.Folder(), place.Name(), mode) != 0) return false;
    const DESCRIPTOR folder(openat(place.Folder(), place.Name(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
    struct stat about;
    if (folder && fstat(folder.Get(), &about) == 0 && about.st_uid == geteuid()) GiveToFolderOwner(folder.Get(), place);
    return static_cast<bool>(folder);
}

DESCRIPTOR OpenRootFolder(const std::string& path) {
    const DESCRIPTOR folder = ReachFolder(path);
    return DESCRIPTOR(folder ? openat(folder.Get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC) : -1);
}

bool ListRootFolder(const std::string& path, std::vector<std::string>& names) {
    names.clear();
    DESCRIPTOR folder = OpenRootFolder(path);
    DIR* const listing = folder ? fdopendir(folder.Get()) : nullptr;
    if (listing == nullptr) return false;
    folder.Release();
    errno = 0;
    while (const dirent* entry = readdir(listing)) names.emplace_back(entry->d_name);
    const int why = errno;
    closedir(listing);
    errno = why;
    return why == 0;
}

bool RenameRootFile(const std::string& from, const std::string& to) {
    const ROOT_PLACE source(from);
    if (!source) return false;
    const ROOT_PLACE target(to);
    return target && renameat(source.Folder(), source.Name(), target.Folder(), target.Name()) == 0;
}

bool RenameRootFileToFree(const std::string& from, const std::string& to) {
    const ROOT_PLACE source(from);
    if (!source) return false;
    const ROOT_PLACE target(to);
    return target && RenameToFree(source.Folder(), source.Name(), target.Folder(), target.Name());
}

bool RemoveRootFile(const std::string& path) {
    const ROOT_PLACE place(path);
    return place && unlinkat(place.Folder(), place.Name(), 0) == 0;
}

REPLACEMENT_FILE::REPLACEMENT_FILE(const std::string& target, mode_t mode, const std::string& ending)
    : place(std::make_unique<ROOT_PLACE>(target, ROOT_PLACE::CHECKED)) {
    if (!*place) return;
    const std::string whole = ending.empty() ? RandomEnding() : ending;
    path = target + whole;
    name = place->Name() + whole;
    if (!ending.empty()) unlinkat(place->Folder(), name.c_str(), 0);
    file = DESCRIPTOR(openat(place->Folder(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    beside = static_cast<bool>(file);
    if (file && IsInMachineRoot(target)) TakeOver();
}

REPLACEMENT_FILE::~REPLACEMENT_FILE() {
    const int why = errno;
    if (beside) unlinkat(place->Folder(), name.c_str(), 0);
    errno = why;
}

void REPLACEMENT_FILE::TakeOver() {
    struct stat old;
    const bool there = fstatat(place->Folder(), place->Name(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!there || !S_ISREG(old.st_mode) || old.st_nlink != 1) return GiveToFolderOwner(file.Get(), *place);
    if (fchmod(file.Get(), old.st_mode & 0777) == 0) Give(file.Get(), old);
}

bool REPLACEMENT_FILE::Write(std::string_view bytes) { return WriteAll(file.Get(), bytes) && fsync(file.Get()) == 0; }

bool REPLACEMENT_FILE::TakePlace() {
    if (renameat(place->Folder(), name.c_str(), place->Folder(), place->Name()) != 0) return false;
    beside = false;
    return true;
}

bool REPLACEMENT_FILE::TakeFreePlace() {
    if (!RenameToFree(place->Folder(), name.c_str(), place->Folder(), place->Name())) return false;
    beside = false;
    return true;
}

}  // namespace win32
