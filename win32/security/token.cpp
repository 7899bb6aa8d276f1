// The access token of this process: who it runs as, and which of its privileges are enabled.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <fstream>
#include <mutex>
#include <set>
#include <vector>

#include "win32/files/machine_root.h"
#include "win32/security/accounts.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

constexpr DWORD MaxPrivileges = 64;  // in one request
constexpr DWORD NoSession = 0xFFFFFFFF;

// The low parts of the privileges' LUIDs; the high parts are all 0.
constexpr DWORD SecurityPrivilege = 8;
constexpr DWORD ChangeNotifyPrivilege = 23;  // every process holds it, enabled

bool MayUse(const std::string& path, int access) { return faccessat(AT_FDCWD, path.c_str(), access, AT_EACCESS) == 0; }

// Asked again each time: the security privilege stands for being able to read the Security log.
bool HoldsPrivilege(DWORD privilege) {
    if (privilege != SecurityPrivilege) return privilege == ChangeNotifyPrivilege;
    if (MayUse(EventLogPath("Security"), R_OK)) return true;
    return errno == ENOENT && MayUse(MachinePath(EventLogFolder), R_OK | X_OK);
}

// A handle to the one token; what the handle may do is its own, the privileges' state is the process's.
class TOKEN final : public KERNEL_OBJECT {
public:
    explicit TOKEN(DWORD granted) : access(granted) {}
    bool Allows(DWORD wanted) const { return (access & wanted) == wanted; }

private:
    const DWORD access;
};

struct ENABLED_PRIVILEGES {
    std::mutex lock;
    std::set<DWORD> numbers{ChangeNotifyPrivilege};
};

ENABLED_PRIVILEGES& Enabled() {
    static ENABLED_PRIVILEGES& enabled = *new ENABLED_PRIVILEGES;
    return enabled;
}

// The login session that the kernel counts; 0, the services' session, for a process outside any.
DWORD SessionId() {
    DWORD id = NoSession;
    std::ifstream("/proc/self/sessionid") >> id;
    return id == NoSession ? 0 : id;
}

// Answers a query by bytes: all of them, or the size that is needed and error 122.
BOOL Answer(const void* data, size_t size, LPVOID buffer, DWORD bytes, PDWORD needed) {
    *needed = static_cast<DWORD>(size);
    if (buffer == nullptr || bytes < size) return FailWith(ERROR_INSUFFICIENT_BUFFER);
    memcpy(buffer, data, size);
    return TRUE;
}

// The record is followed by the SID it points to.
BOOL AnswerUser(LPVOID buffer, DWORD bytes, PDWORD needed) {
    const TOKEN_USER user{{static_cast<BYTE*>(buffer) + (buffer ? sizeof(TOKEN_USER) : 0), 0}};
    std::string record(reinterpret_cast<const char*>(&user), sizeof(user));
    record += UserSid(geteuid()).Bytes();
    return Answer(record.data(), record.size(), buffer, bytes, needed);
}

// What a request would do to one privilege.
struct CHANGE {
    DWORD privilege;
    bool enable;
};

std::vector<CHANGE> ChangesOf(const TOKEN_PRIVILEGES& set, const std::set<DWORD>& enabled, bool& all) {
    std::vector<CHANGE> changes;
    all = true;
    for (DWORD i = 0; i < set.PrivilegeCount; ++i) {
        const LUID_AND_ATTRIBUTES& wanted = set.Privileges[i];
        const bool held = wanted.Luid.HighPart == 0 && HoldsPrivilege(wanted.Luid.LowPart);
        const bool enable = (wanted.Attributes & SE_PRIVILEGE_ENABLED) != 0;
        all = all && held;
        if (held && enabled.contains(wanted.Luid.LowPart) != enable) changes.push_back({wanted.Luid.LowPart, enable});
    }
    return changes;
}

// The state before, of the privileges that change.
BOOL AnswerPrevious(const std::vector<CHANGE>& changes, PTOKEN_PRIVILEGES previous, DWORD bytes, PDWORD needed) {
    std::vector<DWORD> record{static_cast<DWORD>(changes.size())};
    for (const CHANGE& change : changes)
        record.insert(record.end(), {change.privilege, 0, change.enable ? 0u : DWORD{SE_PRIVILEGE_ENABLED}});
    return Answer(record.data(), record.size() * sizeof(DWORD), previous, bytes, needed);
}

}  // namespace
}  // namespace win32

BOOL WINAPI OpenProcessToken(HANDLE process, DWORD access, PHANDLE token) {
    if (token == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (process != GetCurrentProcess()) return win32::FailWith(ERROR_INVALID_HANDLE);
    *token = win32::NewHandle(std::make_shared<win32::TOKEN>(access));
    return TRUE;
}

BOOL WINAPI GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, LPVOID buffer, DWORD bytes, PDWORD needed) {
    const auto object = win32::ObjectAs<win32::TOKEN>(token);
    if (!object) return FALSE;
    if (needed == nullptr) return win32::FailWith(ERROR_NOACCESS);
    if (!object->Allows(TOKEN_QUERY)) return win32::FailWith(ERROR_ACCESS_DENIED);
    switch (what) {
        case TokenUser:
            return win32::AnswerUser(buffer, bytes, needed);
        case TokenSessionId: {
            const DWORD id = win32::SessionId();
            return win32::Answer(&id, sizeof(id), buffer, bytes, needed);
        }
        default:
            return win32::FailWith(ERROR_INVALID_PARAMETER);
    }
}

BOOL WINAPI AdjustTokenPrivileges(HANDLE token, BOOL disableAll, PTOKEN_PRIVILEGES set, DWORD bytes,
                                  PTOKEN_PRIVILEGES previous, PDWORD needed) {
    const auto object = win32::ObjectAs<win32::TOKEN>(token);
    if (!object) return FALSE;
    if (!object->Allows(TOKEN_ADJUST_PRIVILEGES | (previous ? TOKEN_QUERY : 0)))
        return win32::FailWith(ERROR_ACCESS_DENIED);
    if (disableAll) return win32::FailWith(ERROR_NOT_SUPPORTED);
    if (set == nullptr || set->PrivilegeCount > win32::MaxPrivileges) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (previous != nullptr && needed == nullptr) return win32::FailWith(ERROR_NOACCESS);

    win32::ENABLED_PRIVILEGES& enabled = win32::Enabled();
    const std::lock_guard guard(enabled.lock);
    bool all;
    const auto changes = win32::ChangesOf(*set, enabled.numbers, all);
    if (previous != nullptr && !win32::AnswerPrevious(changes, previous, bytes, needed)) return FALSE;
    for (const win32::CHANGE& change : changes)
        change.enable ? (void)enabled.numbers.insert(change.privilege) : (void)enabled.numbers.erase(change.privilege);
    SetLastError(all ? ERROR_SUCCESS : ERROR_NOT_ALL_ASSIGNED);  // a success either way: callers read the code
    return TRUE;
}

// The one privilege that is asked for by name.
BOOL WINAPI LookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid) {
    if (name == nullptr || luid == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (system != nullptr) return win32::FailWith(win32::RpcServerUnavailable);
    if (!win32::SameName(SE_SECURITY_NAME, name)) return win32::FailWith(ERROR_NO_SUCH_PRIVILEGE);
    *luid = {win32::SecurityPrivilege, 0};
    return TRUE;
}
