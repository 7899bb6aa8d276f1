#include "win32/files/root_place.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstring>
#include <filesystem>

#include "win32/files/machine_root.h"

namespace win32 {
namespace {

constexpr int MostLinks = 40;  // the kernel's own bound
constexpr int FolderFlags = O_PATH | O_DIRECTORY | O_CLOEXEC;

thread_local std::string refusal;

std::string Tidy(const std::string& path) {
    const bool tidy = path.starts_with('/') && path.find("//") == path.npos && path.find("/.") == path.npos;
    std::error_code error;
    std::string whole = tidy ? path : std::filesystem::absolute(path, error).lexically_normal().string();
    while (whole.size() > 1 && whole.ends_with('/')) whole.pop_back();
    return whole;
}

nlink_t NamesOf(int folder, const char* name, const struct stat& opened) {
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
    if (!own || NamesOf(folder, name.c_str(), about) != 1) {
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
        if (++links > MostLinks) Refuse(done + "/" + name, "leads through too many links");
        if (links > MostLinks) return DESCRIPTOR();
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

bool IsInMachineRoot(const std::string& path) { return Tidy(path).starts_with(MachinePath("")); }

std::optional<uid_t> OtherOwner() {
    struct stat root;
    const bool others = geteuid() == 0 && stat(MachinePath("").c_str(), &root) == 0 && root.st_uid != 0;
    return others ? std::optional(root.st_uid) : std::nullopt;
}

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

int ROOT_PLACE::Folder() const { return folder ? folder.Get() : AT_FDCWD; }

nlink_t ROOT_PLACE::NamesOf(const struct stat& opened) const { return win32::NamesOf(Folder(), Name(), opened); }

DESCRIPTOR ReachFolder(const std::string& path) {
    std::string rest, base;
    DESCRIPTOR start = Base(Tidy(path), rest, base);
    return start ? Walk(std::move(start), rest, base) : DESCRIPTOR();
}

void Refuse(const std::string& path, const std::string& reason) {
    refusal = path + " " + reason;
    errno = ELOOP;
}

std::string FileFault(int number) { return number == ELOOP && !refusal.empty() ? refusal : std::strerror(number); }

}  // namespace win32
