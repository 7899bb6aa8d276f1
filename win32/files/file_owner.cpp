#include "win32/files/file_owner.h"

#include <sys/stat.h>
#include <unistd.h>

namespace win32 {

namespace {

// What may not be given stays.
void Give(int descriptor, const struct stat& to) {
    struct stat now;
    if (fstat(descriptor, &now) != 0 || (now.st_uid == to.st_uid && now.st_gid == to.st_gid)) return;
    if (fchown(descriptor, to.st_uid, to.st_gid) != 0) return;
}

}  // namespace

void TakeOver(int descriptor, const std::string& path) {
    struct stat old;
    if (stat(path.c_str(), &old) != 0) return GiveToFolderOwner(descriptor, path);
    Give(descriptor, old);
    fchmod(descriptor, old.st_mode & 0777);
}

void GiveToFolderOwner(int descriptor, const std::string& path) {
    struct stat made, folder;
    if (geteuid() != 0 || fstat(descriptor, &made) != 0 || (S_ISREG(made.st_mode) && made.st_nlink != 1)) return;
    if (stat(path.substr(0, path.rfind('/') + 1).c_str(), &folder) == 0) Give(descriptor, folder);
}

}  // namespace win32
