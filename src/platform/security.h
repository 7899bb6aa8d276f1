// Security: identifiers (SIDs), the names of their accounts, access tokens, and the privileges of the running process.
#pragma once

#include <windows.h>

#include <span>

#include "platform/handles.h"
#include "platform/heap_buffer.h"
#include "platform/string.h"

namespace keldwick {

// ---- Security identifiers ----

constexpr DWORD SidNullAuthority = 0;  // indexes of the authorities that AllocateSid knows
constexpr DWORD SidNtAuthority = 5;
constexpr DWORD SidResourceManagerAuthority = 6;
constexpr DWORD SubAuthorityFollows = 0xFFFFFFFF;

// A new SID of that authority. The list holds, for each of at most 8 sub-authorities, SubAuthorityFollows and the
// value, and then 0. Null: the last error says why (87 for a list that is none); freed with FreeSid (SID_OWNER).
PSID AllocateSidV(DWORD authority, std::span<const DWORD> list);
template <typename... NUMBERS>
PSID AllocateSid(DWORD authority, NUMBERS... list) {
    const DWORD numbers[] = {static_cast<DWORD>(list)...};
    return AllocateSidV(authority, numbers);
}

// ---- Names of accounts ----

// Opens the process-wide LSA policy, once, on the main thread. False: with a message and the last error.
bool OpenLsaPolicy();

// Asks the LSA. False when the policy is not open, the look-up failed (message, last error) or the account is unknown;
// except after a failed look-up, both names are then empty.
bool LsaLookupSidName(PSID sid, STRING& domain, STRING& account, SID_NAME_USE* type = nullptr);

// Asks LookupAccountSidW. Each output may be null. False with a message.
bool LookupSidAccount(PSID sid, STRING* account, STRING* domain = nullptr, SID_NAME_USE* type = nullptr);

// ---- Tokens ----

class TOKEN_HANDLE : public HANDLE_OWNER {
public:
    using HANDLE_OWNER::HANDLE_OWNER;

    // False: the last error says why; with a message unless only the size was unknown.
    bool GetInformation(TOKEN_INFORMATION_CLASS what, HEAP_BUFFER& information) const;
    bool GetSessionId(DWORD& session) const;
    bool GetUserSid(HEAP_BUFFER& sid) const;  // a copy
};

// The user SID and session of the running process; true when both were read.
bool GetProcessUserSid(HEAP_BUFFER& sid, DWORD& session);

// ---- Privileges ----

using PRIVILEGE_SET_OWNER = OWNER<HEAP_CLOSER<TOKEN_PRIVILEGES>>;

// A set of one privilege with those attributes, such as SE_PRIVILEGE_ENABLED. Empty: the last error says why.
PRIVILEGE_SET_OWNER CreateTokenPrivilegesHelper(DWORD attributes, const WCHAR* name);

// Gives the process's token those privileges; `previous`, when given, receives what was changed. A Windows error code,
// 0 on full success only: 1300 when the account does not hold one of them.
DWORD SetTokenPrivileges(const PRIVILEGE_SET_OWNER& set, PRIVILEGE_SET_OWNER* previous = nullptr);

}  // namespace keldwick
