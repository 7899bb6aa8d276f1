#include "win32/files/root_files.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/random.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstdio>

namespace win32 {
namespace {

constexpr int MostRaces = 100;  // against others that make and remove the file meanwhile

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
    for (int race = 0; race < MostRaces; ++race) {
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
    uint64_t number = 0;
    if (getrandom(&number, sizeof(number), 0) < 0) return {};
    char text[24];
    std::snprintf(text, sizeof(text), ".%016llx", static_cast<unsigned long long>(number));
    return text;
}

}  // namespace

int OpenRootFile(const std::string& path, int flags, mode_t mode, bool* made) {
    if (made != nullptr) *made = false;
    const ROOT_PLACE place(path);
    if (!place) return -1;
    flags |= O_CLOEXEC | O_NOCTTY;
    if (place.Checked()) flags |= O_NOFOLLOW | O_NONBLOCK;
    const bool creates = (flags & O_CREAT) != 0, onlyNew = creates && (flags & O_EXCL) != 0;
    flags &= ~(O_CREAT | O_EXCL);
    for (int race = 0; race < MostRaces; ++race) {
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
    : place(target, ROOT_PLACE::CHECKED) {
    if (!place) return;
    const std::string whole = ending.empty() ? RandomEnding() : ending;
    path = target + whole;
    name = place.Name() + whole;
    if (!ending.empty()) unlinkat(place.Folder(), name.c_str(), 0);
    file = DESCRIPTOR(openat(place.Folder(), name.c_str(), O_RDWR | O_CREAT | O_EXCL | O_NOFOLLOW | O_CLOEXEC, mode));
    beside = static_cast<bool>(file);
    if (file && IsInMachineRoot(target)) TakeOver();
}

REPLACEMENT_FILE::~REPLACEMENT_FILE() {
    const int why = errno;
    if (beside) unlinkat(place.Folder(), name.c_str(), 0);
    errno = why;
}

void REPLACEMENT_FILE::TakeOver() {
    struct stat old;
    const bool there = fstatat(place.Folder(), place.Name(), &old, AT_SYMLINK_NOFOLLOW) == 0;
    if (!there || !S_ISREG(old.st_mode) || old.st_nlink != 1) return GiveToFolderOwner(file.Get(), place);
    if (fchmod(file.Get(), old.st_mode & 0777) == 0) Give(file.Get(), old);
}

bool REPLACEMENT_FILE::Write(std::string_view bytes) { return WriteAll(file.Get(), bytes) && fsync(file.Get()) == 0; }

bool REPLACEMENT_FILE::TakePlace() {
    if (renameat(place.Folder(), name.c_str(), place.Folder(), place.Name()) != 0) return false;
    beside = false;
    return true;
}

bool REPLACEMENT_FILE::TakeFreePlace() {
    if (!RenameToFree(place.Folder(), name.c_str(), place.Folder(), place.Name())) return false;
    beside = false;
    return true;
}

}  // namespace win32
