// Accounts and their SIDs: the users of this machine, and the anonymous logon.
#pragma once

#include <sys/types.h>
#include <windows.h>

#include <optional>
#include <string>

#include "win32/security/sid.h"

namespace win32 {

constexpr DWORD RpcServerUnavailable = 1722;  // RPC_S_SERVER_UNAVAILABLE: other systems cannot be asked

struct ACCOUNT {
    std::u16string domain;
    std::u16string name;
    SID_NAME_USE use = SidTypeUnknown;
};

// The account of a SID; nothing for a SID that is not known here.
std::optional<ACCOUNT> FindAccount(const SID_VALUE& sid);

// The SID of a user of this machine, the same for the life of the installation: below S-1-5-21-a-b-c, which is derived
// from the machine id without revealing it. FindAccount finds it as long as the user exists.
SID_VALUE UserSid(uid_t user);

// The machine's name, as GetComputerNameW gives it; empty: it cannot be had.
std::u16string ComputerName();

}  // namespace win32
