// Names of the accounts that security identifiers stand for.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

// Opens the process-wide LSA policy, once, on the main thread. False: with a message and the last error.
bool OpenLsaPolicy();

// Asks the LSA. False when the policy is not open, the look-up failed (message, last error) or the account is unknown;
// but for a failed look-up, both names are then empty.
bool LsaLookupSidName(PSID sid, STRING& domain, STRING& account, SID_NAME_USE* type = nullptr);

// Asks LookupAccountSidW. Each output may be null. False with a message.
bool LookupSidAccount(PSID sid, STRING* account, STRING* domain = nullptr, SID_NAME_USE* type = nullptr);

}  // namespace keldwick
