#include "win32/files/machine_root.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <set>
#include <utility>

#include "win32/text/utf.h"

namespace win32 {
namespace {

namespace fs = std::filesystem;

// Stands for drives and servers that the host does not have: nothing can exist below it, so that every call on it
// fails with ERROR_PATH_NOT_FOUND.
constexpr const char* NoSuchPlace = "/dev/null/no-such-place";

bool IsSeparator(char unit) { return unit == '\\' || unit == '/'; }

bool IsLetter(char unit) { return (unit >= 'A' && unit <= 'Z') || (unit >= 'a' && unit <= 'z'); }

std::string Tidied(const fs::path& path) {
    std::string folder = path.lexically_normal().string();
    while (!folder.empty() && folder.back() == '/') folder.pop_back();
    return folder;
}

// The one object that holds this folder's name; it lives as long as the process.
const std::string& Kept(std::string folder) {
    static std::mutex lock;
    static auto* const folders = new std::set<std::string>;
    const std::lock_guard guard(lock);
    return *folders->insert(std::move(folder)).first;
}

std::string NamedRoot() {
    const char* const named = std::getenv("KELDWICK_ROOT");
    std::error_code error;
    if (named != nullptr && *named != '\0') return Tidied(fs::absolute(named, error));
    const std::string current = fs::current_path(error).string();
    return Tidied(DefaultRoot(current, fs::read_symlink("/proc/self/exe", error).parent_path().string()));
}

// Asked for several times in every report: the environment, which takes its time, is asked once.
constinit std::atomic<const std::string*> inForce{nullptr};

}  // namespace

std::string DefaultRoot(const std::string& current, const std::string& programs) {
    const auto isRoot = [](const std::string& folder) {
        std::error_code error;
        return !folder.empty() && fs::exists(fs::path(folder) / RegistryFile, error);
    };
    return current.empty() || (!isRoot(current) && isRoot(programs)) ? programs : current;
}

const std::string& MachineRoot() {
    const std::string* root = inForce.load(std::memory_order_acquire);
    if (root == nullptr) inForce.store(root = &Kept(NamedRoot()), std::memory_order_release);
    return *root;
}

void ForgetMachineRoot() { inForce = nullptr; }

std::string PathIn(const std::string& root, std::string_view name) {
    return std::string(root).append("/").append(name);
}

std::string MachinePath(std::string_view name) { return PathIn(MachineRoot(), name); }

std::string EventLogPath(std::string_view log) {
    return MachinePath(EventLogFolder).append("/").append(log).append(EventLogExtension);
}

std::string HostPath(std::u16string_view path) {
    std::string host = ToUtf8(path);
    if (host.rfind("\\\\?\\", 0) == 0 || host.rfind("\\\\.\\", 0) == 0) {
        host.erase(0, 4);
    } else if (host.size() >= 2 && IsSeparator(host[0]) && IsSeparator(host[1])) {
        return NoSuchPlace;
    }
    std::replace(host.begin(), host.end(), '\\', '/');
    if (host.size() < 2 || host[1] != ':' || !IsLetter(host[0])) return host;
    if (host[0] != 'C' && host[0] != 'c') return NoSuchPlace;
    host.erase(0, 2);
    return host.empty() ? "." : host;
}

std::u16string WindowsPath(std::string_view path) {
    std::u16string windows = u"C:" + ToUtf16(path);
    std::replace(windows.begin(), windows.end(), u'/', u'\\');
    return windows;
}

}  // namespace win32
