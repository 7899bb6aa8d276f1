// Accounts and their SIDs: the well-known ones, the users and groups of this machine, and those of the directory.
#pragma once

#include <sys/types.h>
#include <windows.h>

#include <optional>
#include <string>

#include "win32/security/sid.h"

namespace win32 {

struct ACCOUNT {
    std::u16string domain;  // empty where Windows gives none (Everyone)
    std::u16string name;
    SID_NAME_USE use = SidTypeUnknown;
};

// The account behind a SID, in the English names that Windows has; nothing for a SID that is not known here. A domain's
// SID may cost as long as the directory takes to answer.
std::optional<ACCOUNT> FindAccount(const SID_VALUE& sid);

// S-1-5-21-a-b-c, the same for the life of the installation: derived from the machine id, from which it does not let
// anybody conclude.
SID_VALUE MachineSid();

// The SID of a user of this machine; FindAccount finds it as long as the user exists.
SID_VALUE UserSid(uid_t user);

// Whether a call that names a system means this one: null, empty, or its own name. Others cannot be asked.
bool IsThisSystem(LPCWSTR name);

}  // namespace win32
