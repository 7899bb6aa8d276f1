// Accounts of the directory that the settings name.
#pragma once

#include <optional>

#include "win32/security/accounts.h"

namespace win32 {

// The account or the domain of a SID S-1-5-21-...; nothing when there is no directory, or when it does not know it or
// cannot be asked.
std::optional<ACCOUNT> FindDomainAccount(const SID_VALUE& sid);

}  // namespace win32
