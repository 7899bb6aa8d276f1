#include "tools/feed/files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>

#include "tools/common/failure.h"

namespace tools::feed {
namespace {

constexpr size_t FarBytes = 64 * 1024, TailBytes = 256, BeginningBytes = 1024;

// FNV-1a of the last TailBytes bytes; 0 when there are none.
unsigned long long Fingerprint(std::string_view bytes) {
    if (bytes.empty()) return 0;
    unsigned long long hash = 0xCBF29CE484222325;
    for (const char each : bytes.substr(bytes.size() - std::min(bytes.size(), TailBytes)))
        hash = (hash ^ static_cast<unsigned char>(each)) * 0x100000001B3;
    return hash;
}

struct stat About(int fd) {
    struct stat about = {};
    fstat(fd, &about);
    return about;
}

constexpr size_t MaxRotated = 1000;

// A rotated file's name after the path's.
bool IsRotated(std::string_view suffix) {
    if (suffix == ".old") return true;
    return suffix.size() > 1 && (suffix[0] == '.' || suffix[0] == '-') &&
           suffix.find_first_not_of("0123456789.-_:T", 1) == std::string_view::npos;
}

std::vector<std::string> RotatedNames(const std::string& path) {
    std::vector<std::string> names;
    const std::string folder = FolderOf(path), base = path.substr(path.rfind('/') + 1);
    std::error_code error;
    for (std::filesystem::directory_iterator it(folder, error), end; !error && it != end; it.increment(error)) {
        const std::string name = it->path().filename().string();
        if (!name.starts_with(base) || !IsRotated(std::string_view(name).substr(base.size()))) continue;
        names.push_back(folder + "/" + name);
        if (names.size() >= MaxRotated) break;
    }
    return names;
}

}  // namespace

std::vector<ROTATED_FILE> RotatedFiles(const std::string& path) {
    std::vector<ROTATED_FILE> files;
    for (const std::string& name : RotatedNames(path)) {
        struct stat about;
        if (stat(name.c_str(), &about) == 0 && S_ISREG(about.st_mode))
            files.push_back({name, WrittenAt(about), about.st_dev, about.st_ino});
    }
    std::sort(files.begin(), files.end(), [](const ROTATED_FILE& a, const ROTATED_FILE& b) {
        return a.written != b.written ? a.written < b.written : IsNewerName(b.name, a.name);
    });
    return files;
}

bool IsNewerName(std::string_view a, std::string_view b) {
    const auto isNumber = [](std::string_view name) {
        const std::string_view digits = name.substr(name.rfind('.') + 1);
        return digits.size() < 5 && digits.find_first_not_of("0123456789") == std::string_view::npos;
    };
    if (isNumber(a) && isNumber(b)) return a.size() != b.size() ? a.size() < b.size() : a < b;
    return a > b;
}

std::string FolderOf(const std::string& path) {
    const size_t slash = path.rfind('/');
    return slash == std::string::npos ? "." : slash == 0 ? "/" : path.substr(0, slash);
}

unsigned long long WrittenAt(const struct stat& about) {
    constexpr unsigned long long NanosecondsPerSecond = 1000000000;
    return static_cast<unsigned long long>(about.st_mtim.tv_sec) * NanosecondsPerSecond +
           static_cast<unsigned long long>(about.st_mtim.tv_nsec);
}

std::unique_ptr<FOLLOWED_FILE> FOLLOWED_FILE::Open(const std::string& name) {
    // Another account may have named it: a device may act on being opened.
    const win32::DESCRIPTOR named(open(name.c_str(), O_PATH | O_CLOEXEC));
    if (!named) return nullptr;
    const struct stat about = About(named.Get());
    if (!S_ISREG(about.st_mode)) throw COMMAND_ERROR("cannot follow " + name + ": it is not a regular file");
    const std::string path = "/proc/self/fd/" + std::to_string(named.Get());
    win32::DESCRIPTOR opened(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK));
    if (!opened) return nullptr;
    std::unique_ptr<FOLLOWED_FILE> file(new FOLLOWED_FILE(std::move(opened), name));
    file->place.device = about.st_dev;
    file->place.inode = about.st_ino;
    return file;
}

unsigned long long FOLLOWED_FILE::Size() const { return static_cast<unsigned long long>(About(file.Get()).st_size); }

unsigned long long FOLLOWED_FILE::Written() const { return WrittenAt(About(file.Get())); }

bool FOLLOWED_FILE::IsSame(unsigned long long device, unsigned long long inode) const {
    return place.device == device && place.inode == inode;
}

std::string FOLLOWED_FILE::Bytes(unsigned long long offset, size_t count) const {
    std::string bytes(count, '\0');
    bytes.resize(static_cast<size_t>(
        std::max<ssize_t>(0, pread(file.Get(), bytes.data(), bytes.size(), static_cast<off_t>(offset)))));
    return bytes;
}

std::string FOLLOWED_FILE::Beginning() const { return Bytes(0, BeginningBytes); }

unsigned long long FOLLOWED_FILE::Tail(unsigned long long offset) const {
    const size_t count = std::min<unsigned long long>(offset, TailBytes);
    const std::string bytes = Bytes(offset - count, count);
    return bytes.size() < count ? 0 : Fingerprint(bytes);
}

unsigned long long FOLLOWED_FILE::LineStart(unsigned long long offset) const {
    const unsigned long long begin = offset - std::min<unsigned long long>(offset, FarBytes);
    const size_t end = Bytes(begin, offset - begin).rfind('\n');
    return end == std::string::npos ? 0 : begin + end + 1;
}

void FOLLOWED_FILE::GoTo(unsigned long long offset, unsigned long long tailThere) {
    place.offset = readTo = offset;
    place.tail = tail = tailThere;
    lines = {};
}

bool FOLLOWED_FILE::Read(std::span<char> room, std::string_view& bytes, size_t& fresh) const {
    const size_t before = std::min<unsigned long long>(readTo, TailBytes);
    ssize_t got = -1;
    do got = pread(file.Get(), room.data(), room.size(), static_cast<off_t>(readTo - before));
    while (got < 0 && errno == EINTR);
    if (got < 0) throw COMMAND_ERROR("cannot read " + name + ": " + std::strerror(errno));
    bytes = std::string_view(room.data(), static_cast<size_t>(got));
    if (bytes.size() < before || Fingerprint(bytes.substr(0, before)) != tail) return false;
    fresh = bytes.size() - before;
    return true;
}

size_t FOLLOWED_FILE::Take(std::string_view bytes, size_t fresh, LINE_TAKER& taker) {
    const size_t before = bytes.size() - fresh, taken = lines.Feed(bytes.substr(before), taker);
    bytes = bytes.substr(0, before + taken);
    readTo += taken;
    tail = Fingerprint(bytes);
    if (lines.Pending() < taken) {  // a line ended
        place.offset = readTo - lines.Pending();
        place.tail = Fingerprint(bytes.substr(0, bytes.size() - lines.Pending()));
    }
    return taken;
}

void FOLLOWED_FILE::Recall(size_t bytes, LINE_TAKER& taker) const {
    const unsigned long long end = place.offset, begin = end - std::min<unsigned long long>(end, bytes);
    const std::string text = Bytes(begin, end - begin);
    std::string_view whole = text;
    if (begin > 0) whole.remove_prefix(std::min(whole.find('\n'), whole.size()));
    LINES recalled;
    recalled.Feed(whole, taker);
}

}  // namespace tools::feed
