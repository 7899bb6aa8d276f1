// Reporting one identity by hand, to test a server and the way to it with the bytes that the service would send.
#pragma once

#include <windows.h>

#include "platform/ip_address.h"

namespace keldwick {

// Connects CurrentSession once and reports this computer's address with the current user, or with the names given on
// the command line, then a heartbeat and a logoff as its flags ask. Failures are written to the debug output only.
void RunManualReport();

// The reporting step: a logon, then, when that succeeded, the heartbeat and the logoff that the command line asks for.
void ReportIdentity(const IP_ADDRESS& address, const WCHAR* ipText, const WCHAR* userName, const WCHAR* computerName);

}  // namespace keldwick
