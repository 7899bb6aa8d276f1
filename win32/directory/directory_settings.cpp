#include "win32/directory/directory_settings.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <mutex>
#include <set>
#include <system_error>
#include <utility>

#include "win32/directory/directory_text.h"
#include "win32/files/file_watch.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/registry/linux_settings.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr size_t MaxPasswordBytes = 1024;
constexpr size_t MaxComplaints = 64;  // that are remembered: a server may have a new text for each answer

std::string Setting(const char16_t* name) {
    const std::optional<std::u16string> text = LinuxText(name);
    return text ? ToUtf8(*text) : std::string();
}

// One file of the machine root that is looked at with every name.
class LOOKED_AT_FILE {
public:
    explicit LOOKED_AT_FILE(std::string_view fileName) : name(fileName) {}

    std::optional<FILE_IDENTITY> Identity(const std::string& machineRoot) {
        const std::lock_guard guard(lock);
        const std::string* const now = &machineRoot;
        if (std::exchange(root, now) != now) Forget();
        if (!mark.Holds()) Look(PathIn(machineRoot, name));
        errno = failure;
        return failure == 0 ? std::optional(identity) : std::nullopt;
    }

    // As long as it holds, Identity gives what it gives from now on.
    FILE_WATCH::MARK Mark() {
        const std::lock_guard guard(lock);
        return mark;
    }

private:
    void Forget() {
        watch.reset();
        mark = {};
    }

    void Look(const std::string& path) {
        if (!watch && LinuxSettingsAreWatched()) Watch(path);
        if (watch) mark = watch->Mark();
        struct stat status;
        failure = stat(path.c_str(), &status) == 0 ? 0 : errno;
        if (failure == 0) identity = IdentityOf(status);
    }

    void Watch(const std::string& path) try {
        watch = std::make_unique<FILE_WATCH>(path, [] {});
    } catch (const std::system_error&) {  // no thread: it is looked at each time
    }

    const std::string_view name;
    std::mutex lock;
    const std::string* root = nullptr;
    std::unique_ptr<FILE_WATCH> watch;
    FILE_WATCH::MARK mark;
    int failure = 0;
    FILE_IDENTITY identity;
};

}  // namespace

bool IsDirectoryUri(const std::string& uri) {
    const auto fits = [](char c) { return c > ' ' && c < 0x7F; };
    if (uri.size() > 1024 || !std::all_of(uri.begin(), uri.end(), fits)) return false;
    if (uri.starts_with("ldapi://")) return true;
    for (const char* scheme : {"ldap://", "ldaps://"}) {
        if (!uri.starts_with(scheme)) continue;
        std::string server = uri.substr(strlen(scheme));
        if (server.ends_with('/')) server.pop_back();
        return IsServerName(server);
    }
    return false;
}

namespace {

std::optional<LDAP_BIND> BindOf(const std::string& word, bool local) {
    const std::string lower = LowerName(word);
    if (lower == "gssapi") return LDAP_BIND::GSSAPI;
    if (lower == "simple") return LDAP_BIND::SIMPLE;
    if (lower == "none" && local) return LDAP_BIND::NONE;
    if (lower.empty()) return local ? LDAP_BIND::NONE : LDAP_BIND::GSSAPI;
    return std::nullopt;
}

std::string Complaint(const LDAP_SETTINGS& settings, bool bindKnown) {
    const bool plain = settings.uri.starts_with("ldap://") || settings.uri.empty();
    if (settings.uri.empty() && settings.domain.empty()) return "neither DirectoryUri nor DirectoryDomain is set";
    if (!settings.uri.empty() && !IsDirectoryUri(settings.uri))
        return "DirectoryUri must be ldap://HOST, ldaps://HOST or ldapi://SOCKET, not \"" + settings.uri + "\"";
    if (!settings.domain.empty() && !IsServerName(settings.domain)) return "DirectoryDomain is not a DNS name";
    if (!bindKnown) return "DirectoryBind must be gssapi or simple, or, for an ldapi socket, none";
    if (settings.startTls && !plain) return "DirectoryStartTls is for ldap:// only";
    if (settings.bind != LDAP_BIND::SIMPLE) {
        if (settings.bind == LDAP_BIND::GSSAPI && (settings.startTls || settings.uri.starts_with("ldaps://")))
            return "DirectoryBind gssapi encrypts by itself: use ldap:// without DirectoryStartTls";
        return {};
    }
    if (settings.user.empty()) return "DirectoryBind simple needs DirectoryUser";
    if (settings.passwordFile.empty()) return "DirectoryBind simple needs DirectoryPasswordFile";
    if (plain && !settings.startTls)
        return "DirectoryBind simple sends a password: use ldaps://, or set DirectoryStartTls to 1";
    return {};
}

struct BACKEND_SETTINGS {
    std::optional<DIRECTORY_BACKEND> chosen;  // by name; nothing: by what there is
    bool serverNamed = false;
};

BACKEND_SETTINGS ReadBackendSettings() {
    BACKEND_SETTINGS settings;
    const std::string backend = LowerName(Setting(u"DirectoryBackend"));
    if (backend == "ldap")
        settings.chosen = DIRECTORY_BACKEND::LDAP;
    else if (backend == "ldif")
        settings.chosen = DIRECTORY_BACKEND::LDIF;
    else if (!backend.empty())
        ComplainOnce("the settings", "DirectoryBackend must be ldap or ldif, not \"" + backend + "\"");
    settings.serverNamed = !Setting(u"DirectoryUri").empty() || !Setting(u"DirectoryDomain").empty();
    return settings;
}

struct CHECKED_LDAP_SETTINGS {
    LDAP_SETTINGS settings;
    std::string complaint;  // empty: they make sense
};

CHECKED_LDAP_SETTINGS ReadCheckedSettings() {
    CHECKED_LDAP_SETTINGS read;
    LDAP_SETTINGS& settings = read.settings;
    settings.uri = Setting(u"DirectoryUri");
    settings.domain = Setting(u"DirectoryDomain");
    settings.user = Setting(u"DirectoryUser");
    settings.passwordFile = Setting(u"DirectoryPasswordFile");
    settings.keytab = Setting(u"DirectoryKeytab");
    settings.caFile = Setting(u"DirectoryCaFile");
    settings.startTls = LinuxNumber(u"DirectoryStartTls").value_or(0) != 0;
    const auto bind = BindOf(Setting(u"DirectoryBind"), settings.uri.starts_with("ldapi://"));
    settings.bind = bind.value_or(LDAP_BIND::GSSAPI);
    read.complaint = Complaint(settings, bind.has_value());
    return read;
}

// Settings are asked for with every name: they are read again only when the registry has changed.
template <typename SETTINGS>
const SETTINGS& Current(SETTINGS (*read)(), const std::string& root) {
    static thread_local std::shared_ptr<const void> lastVersion;
    static thread_local SETTINGS settings;
    if (const auto version = LinuxSettingsVersion(root); !version || version != lastVersion) {
        settings = read();
        lastVersion = version;
    }
    return settings;
}

// The machine root's owner says where passwords are sent: root, at work in it, sends none that this owner may not read.
bool MayOwnSecret(uid_t owner) {
    const std::optional<uid_t> other = OtherOwner();
    return other ? owner == *other : owner == 0 || owner == geteuid();
}

LOOKED_AT_FILE& LdifFile() {
    static LOOKED_AT_FILE& file = *new LOOKED_AT_FILE(DirectoryFile);
    return file;
}

// Where no setting names one.
DIRECTORY_BACKEND BackendFound(const BACKEND_SETTINGS& settings, const std::string& root) {
    if (LdifFile().Identity(root)) return DIRECTORY_BACKEND::LDIF;
    return settings.serverNamed ? DIRECTORY_BACKEND::LDAP : DIRECTORY_BACKEND::NONE;
}

}  // namespace

// Asked for several times in every report: what was found last holds as long as the marks of both files do.
DIRECTORY_BACKEND ConfiguredBackend() {
    struct LOOK {
        const std::string* root = nullptr;
        FILE_WATCH::MARK settings, ldif;
        DIRECTORY_BACKEND found{};
    };
    static thread_local LOOK last;
    const std::string& root = MachineRoot();
    const auto now = Uptime();
    if (last.root == &root && last.settings.Holds(now) && last.ldif.Holds(now)) return last.found;
    LOOK look{&root, LinuxSettingsMark(root), LdifFile().Mark()};  // marked before it is looked at
    const BACKEND_SETTINGS& settings = Current(ReadBackendSettings, root);
    if (settings.chosen) look.ldif = look.settings;  // the file decides nothing
    look.found = settings.chosen ? *settings.chosen : BackendFound(settings, root);
    last = std::move(look);
    return last.found;
}

std::string LdifPath() { return MachinePath(DirectoryFile); }

std::optional<FILE_IDENTITY> LdifIdentity() { return LdifFile().Identity(MachineRoot()); }

std::optional<LDAP_SETTINGS> ReadLdapSettings(std::string& complaint) {
    const CHECKED_LDAP_SETTINGS& current = Current(ReadCheckedSettings, MachineRoot());
    complaint = current.complaint;
    return complaint.empty() ? std::optional(current.settings) : std::nullopt;
}

std::optional<std::string> ReadPasswordFile(const std::string& path, std::string& complaint) {
    const DESCRIPTOR file(OpenRootFile(path, O_RDONLY | O_NONBLOCK));
    if (!file) {
        complaint = "the password file " + path + " cannot be read: " + FileFault(errno);
        return std::nullopt;
    }
    struct stat status {};
    char bytes[MaxPasswordBytes];
    const bool known = fstat(file.Get(), &status) == 0;
    const bool regular = known && S_ISREG(status.st_mode);
    const bool own = MayOwnSecret(status.st_uid);
    const bool secret = regular && own && (status.st_mode & 077) == 0;
    const ssize_t size = secret ? read(file.Get(), bytes, sizeof(bytes)) : -1;
    if (!regular)
        complaint = "the password file " + path + " is not a plain file";
    else if (!own && geteuid() == 0)
        complaint = "the password file " + path + " is refused: it must belong to the machine root's owner";
    else if (!secret)
        complaint = "the password file " + path +
                    " is refused: nobody but its owner (root, or the user this runs as) may read it; use chmod 600";
    else if (size <= 0)
        complaint = "the password file " + path + " is empty or cannot be read";
    if (size <= 0) return std::nullopt;
    const std::string_view text(bytes, static_cast<size_t>(size));
    return std::string(text.substr(0, text.find_first_of("\r\n")));
}

std::string ServerComplaint(const std::string& server) {
    if (IsServerName(server)) return {};
    return "\"" + server + "\" is not a server: AdServer must be a host's name or address, perhaps with a port";
}

namespace {

// What has been said of which subject.
struct COMPLAINTS {
    std::mutex lock;
    std::set<std::pair<std::string, std::string>> said;

    static COMPLAINTS& Current() {
        static COMPLAINTS& complaints = *new COMPLAINTS;
        return complaints;
    }
};

}  // namespace

void ComplainOnce(const std::string& subject, const std::string& complaint) {
    COMPLAINTS& complaints = COMPLAINTS::Current();
    const std::lock_guard guard(complaints.lock);
    if (complaints.said.size() >= MaxComplaints) complaints.said.clear();
    if (!complaints.said.emplace(subject, complaint).second) return;
    OutputDebugStringW((u"Directory: " + ToUtf16(complaint) + u"\n").c_str());
}

void ForgetComplaints(const std::string& subject) {
    COMPLAINTS& complaints = COMPLAINTS::Current();
    const std::lock_guard guard(complaints.lock);
    std::erase_if(complaints.said, [&](const auto& one) { return one.first == subject; });
}

}  // namespace win32
