// The reports to the identity server. There is one request layout; heartbeats and logoffs send the stored logon request
// again with another report kind and a new request ID. Every report waits until the server has answered or the exchange
// has failed, and goes through CurrentSession.
#pragma once

#include <windows.h>

#include <span>

#include "platform/ip_address.h"
#include "platform/string.h"
#include "protocol/identity_request.h"

namespace keldwick {

// Looks both names up in the directory, encodes the logon into the request, replacing what it held, and sends it. The
// text is the address's, for messages; null or empty names are absent. True: a well-formed answer arrived.
bool IdentityReportLogon(IDENTITY_REQUEST& request, const IP_ADDRESS& address, const WCHAR* ipText,
                         const WCHAR* userName, const WCHAR* computerName);

// The exchanges of this process so far, every kind together; the worker's own.
struct REPORT_COUNTS {
    DWORD answered = 0;  // by a well-formed answer
    DWORD failed = 0;
    DWORD retried = 0;  // attempts to send beyond an exchange's first
    bool operator==(const REPORT_COUNTS&) const = default;
};
extern REPORT_COUNTS ReportCounts;

// Both need a request whose logon has been reported.
bool IdentityReportHeartbeat(IDENTITY_REQUEST& request);
bool IdentityReportLogoff(IDENTITY_REQUEST& request);

// One exchange: gives the request a new ID, sends it in at most three attempts, reconnecting when necessary, and checks
// the response. The operation's name stands in the messages. False: no well-formed answer came.
bool SendRequest(const WCHAR* operation, BYTE* request, DWORD length);

// Whether the bytes are a well-formed answer to the request; the status in it decides nothing. What is wrong with them
// is written to the debug output.
bool IsAnswerTo(const WCHAR* operation, const BYTE* request, std::span<const BYTE> response);

}  // namespace keldwick
