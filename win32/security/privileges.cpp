#include "win32/security/privileges.h"

#include <fcntl.h>
#include <unistd.h>

#include <cerrno>

#include "win32/files/machine_root.h"
#include "win32/security/accounts.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace win32 {
namespace {

// The name of LUID FirstPrivilege + index, in the order in which Windows numbers them.
constexpr DWORD FirstPrivilege = 2;
constexpr const char16_t* names[] = {
    u"SeCreateTokenPrivilege",
    u"SeAssignPrimaryTokenPrivilege",
    u"SeLockMemoryPrivilege",
    u"SeIncreaseQuotaPrivilege",
    u"SeMachineAccountPrivilege",
    u"SeTcbPrivilege",
    u"SeSecurityPrivilege",
    u"SeTakeOwnershipPrivilege",
    u"SeLoadDriverPrivilege",
    u"SeSystemProfilePrivilege",
    u"SeSystemtimePrivilege",
    u"SeProfileSingleProcessPrivilege",
    u"SeIncreaseBasePriorityPrivilege",
    u"SeCreatePagefilePrivilege",
    u"SeCreatePermanentPrivilege",
    u"SeBackupPrivilege",
    u"SeRestorePrivilege",
    u"SeShutdownPrivilege",
    u"SeDebugPrivilege",
    u"SeAuditPrivilege",
    u"SeSystemEnvironmentPrivilege",
    u"SeChangeNotifyPrivilege",
    u"SeRemoteShutdownPrivilege",
    u"SeUndockPrivilege",
    u"SeSyncAgentPrivilege",
    u"SeEnableDelegationPrivilege",
    u"SeManageVolumePrivilege",
    u"SeImpersonatePrivilege",
    u"SeCreateGlobalPrivilege",
    u"SeTrustedCredManAccessPrivilege",
    u"SeRelabelPrivilege",
    u"SeIncreaseWorkingSetPrivilege",
    u"SeTimeZonePrivilege",
    u"SeCreateSymbolicLinkPrivilege",
    u"SeDelegateSessionUserImpersonatePrivilege",
};

bool MayUse(const char* name, int access) {
    return faccessat(AT_FDCWD, MachinePath(name).c_str(), access, AT_EACCESS) == 0;
}

bool MayReadSecurityLog() {
    if (MayUse("eventlog/Security.evt", R_OK)) return true;
    return errno == ENOENT && MayUse("eventlog", R_OK | X_OK);
}

}  // namespace

bool HoldsPrivilege(DWORD privilege) {
    return privilege == ChangeNotifyPrivilege || (privilege == SecurityPrivilege && MayReadSecurityLog());
}

}  // namespace win32

BOOL WINAPI LookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid) {
    if (name == nullptr || luid == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!win32::IsThisSystem(system)) return win32::FailWith(1722);  // RPC_S_SERVER_UNAVAILABLE
    DWORD number = win32::FirstPrivilege;
    for (const char16_t* known : win32::names) {
        if (win32::SameName(known, name)) {
            *luid = {number, 0};
            return TRUE;
        }
        ++number;
    }
    return win32::FailWith(ERROR_NO_SUCH_PRIVILEGE);
}
