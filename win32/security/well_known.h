// The SIDs that are the same on every Windows machine.
#pragma once

#include <optional>

#include "win32/security/accounts.h"

namespace win32 {

std::optional<ACCOUNT> FindWellKnown(const SID_VALUE& sid);

}  // namespace win32
