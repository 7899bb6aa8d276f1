#include "win32/security/well_known.h"

#include <algorithm>
#include <iterator>

namespace win32 {
namespace {

constexpr DWORD None = 0xFFFFFFFF;  // no such sub-authority
constexpr DWORD Builtin = 32;

struct ROW {
    uint64_t authority;
    DWORD first, second;
    const char16_t* name;
};

// By Microsoft's list of well-known SIDs.
constexpr ROW rows[] = {
    {0, 0, None, u"NULL SID"},
    {1, 0, None, u"Everyone"},
    {2, 0, None, u"LOCAL"},
    {2, 1, None, u"CONSOLE LOGON"},
    {3, 0, None, u"CREATOR OWNER"},
    {3, 1, None, u"CREATOR GROUP"},
    {3, 2, None, u"CREATOR OWNER SERVER"},
    {3, 3, None, u"CREATOR GROUP SERVER"},
    {3, 4, None, u"OWNER RIGHTS"},
    {NtAuthority, 1, None, u"DIALUP"},
    {NtAuthority, 2, None, u"NETWORK"},
    {NtAuthority, 3, None, u"BATCH"},
    {NtAuthority, 4, None, u"INTERACTIVE"},
    {NtAuthority, 6, None, u"SERVICE"},
    {NtAuthority, 7, None, u"ANONYMOUS LOGON"},
    {NtAuthority, 8, None, u"PROXY"},
    {NtAuthority, 9, None, u"ENTERPRISE DOMAIN CONTROLLERS"},
    {NtAuthority, 10, None, u"SELF"},
    {NtAuthority, 11, None, u"Authenticated Users"},
    {NtAuthority, 12, None, u"RESTRICTED"},
    {NtAuthority, 13, None, u"TERMINAL SERVER USER"},
    {NtAuthority, 14, None, u"REMOTE INTERACTIVE LOGON"},
    {NtAuthority, 15, None, u"This Organization"},
    {NtAuthority, 17, None, u"IUSR"},
    {NtAuthority, 18, None, u"SYSTEM"},
    {NtAuthority, 19, None, u"LOCAL SERVICE"},
    {NtAuthority, 20, None, u"NETWORK SERVICE"},
    {NtAuthority, 33, None, u"WRITE RESTRICTED"},
    {NtAuthority, 64, 10, u"NTLM Authentication"},
    {NtAuthority, 64, 14, u"SChannel Authentication"},
    {NtAuthority, 64, 21, u"Digest Authentication"},
    {NtAuthority, 113, None, u"Local account"},
    {NtAuthority, 114, None, u"Local account and member of Administrators group"},
    {NtAuthority, Builtin, None, u"BUILTIN"},
    {NtAuthority, Builtin, 544, u"Administrators"},
    {NtAuthority, Builtin, 545, u"Users"},
    {NtAuthority, Builtin, 546, u"Guests"},
    {NtAuthority, Builtin, 547, u"Power Users"},
    {NtAuthority, Builtin, 548, u"Account Operators"},
    {NtAuthority, Builtin, 549, u"Server Operators"},
    {NtAuthority, Builtin, 550, u"Print Operators"},
    {NtAuthority, Builtin, 551, u"Backup Operators"},
    {NtAuthority, Builtin, 552, u"Replicator"},
    {NtAuthority, Builtin, 554, u"Pre-Windows 2000 Compatible Access"},
    {NtAuthority, Builtin, 555, u"Remote Desktop Users"},
    {NtAuthority, Builtin, 556, u"Network Configuration Operators"},
    {NtAuthority, Builtin, 557, u"Incoming Forest Trust Builders"},
    {NtAuthority, Builtin, 558, u"Performance Monitor Users"},
    {NtAuthority, Builtin, 559, u"Performance Log Users"},
    {NtAuthority, Builtin, 560, u"Windows Authorization Access Group"},
    {NtAuthority, Builtin, 561, u"Terminal Server License Servers"},
    {NtAuthority, Builtin, 562, u"Distributed COM Users"},
    {NtAuthority, Builtin, 568, u"IIS_IUSRS"},
    {NtAuthority, Builtin, 569, u"Cryptographic Operators"},
    {NtAuthority, Builtin, 573, u"Event Log Readers"},
    {NtAuthority, Builtin, 574, u"Certificate Service DCOM Access"},
    {NtAuthority, Builtin, 575, u"RDS Remote Access Servers"},
    {NtAuthority, Builtin, 576, u"RDS Endpoint Servers"},
    {NtAuthority, Builtin, 577, u"RDS Management Servers"},
    {NtAuthority, Builtin, 578, u"Hyper-V Administrators"},
    {NtAuthority, Builtin, 579, u"Access Control Assistance Operators"},
    {NtAuthority, Builtin, 580, u"Remote Management Users"},
};

ACCOUNT AccountOf(const ROW& row) {
    if (row.authority != NtAuthority) return {u"", row.name, SidTypeWellKnownGroup};
    if (row.first != Builtin) return {u"NT AUTHORITY", row.name, SidTypeWellKnownGroup};
    return {u"BUILTIN", row.name, row.second == None ? SidTypeDomain : SidTypeAlias};
}

}  // namespace

std::optional<ACCOUNT> FindWellKnown(const SID_VALUE& sid) {
    const size_t count = sid.Subs().size();
    if (count == 0 || count > 2) return std::nullopt;
    const DWORD first = sid.Subs()[0], second = count == 2 ? sid.Subs()[1] : None;
    const ROW* row = std::find_if(std::begin(rows), std::end(rows), [&](const ROW& r) {
        return r.authority == sid.Authority() && r.first == first && r.second == second;
    });
    if (row == std::end(rows)) return std::nullopt;
    return AccountOf(*row);
}

}  // namespace win32
