#include "protocol/identity_reports.h"

#include <atomic>
#include <span>

#include "diagnostics/debug_output.h"
#include "directory/directory_binding.h"
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "protocol/identity_protocol.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {

REPORT_COUNTS ReportCounts;

namespace {

constexpr int MaxAttempts = 3;

std::atomic<DWORD> RequestId{0};  // the last one given out

// Asks the directory for the account, which may have another name than the one that is reported.
void LookUp(PRINCIPAL& who, const WCHAR* account, const DIRECTORY_BINDING& binding) {
    if (!Nt4NameToDn(account, who.dn, &binding)) who.dn.Clear();
    DnToOu(who.dn.Text(), who.ou);
}

void BindToDirectory(DIRECTORY_BINDING& binding) {
    STRING server;
    GetAdServer(server);
    if (!server.IsEmpty()) SetBindingServer(binding, server.Text());
}

// Whether a stop keeps the report from going out: it has cost the session its connection, and there is no other.
bool IsNeverToBeSent() {
    return CurrentSession->IsDisconnected() && WaitForSingleObject(StopEvent, 0) == WAIT_OBJECT_0;
}

// A walk that failed midway leaves its entries counted, without any group fields after the count.
GROUP_FIELDS CollectGroups(const STRING& user, const DIRECTORY_BINDING& binding) {
    GROUP_LIST list;
    const bool whole = GetGroups(user.Text(), list, &binding);
    return EncodeGroups(list, whole);
}

void LookUpUser(PRINCIPAL& user, const DIRECTORY_BINDING& binding, GROUP_FIELDS& groups) {
    LookUp(user, user.name.Text(), binding);
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("IdentityReportLogon:\n    User DN = \"%s\",\n    User OU = \"%s\""), user.dn,
                     user.ou);
    if (CurrentSession->Selector() == TRANSPORT::PLAIN) groups = CollectGroups(user.name, binding);
}

void LookUpComputer(PRINCIPAL& computer, const DIRECTORY_BINDING& binding) {
    LookUp(computer, STRING::Join({computer.name.View(), TEXT("$")}).Text(), binding);  // the mark of computer accounts
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("IdentityReportLogon:\n    Computer DN = \"%s\",\n    Computer OU = \"%s\""),
                     computer.dn, computer.ou);
}

bool AwaitAnswer(const WCHAR* operation, const BYTE* request) {
    std::span<const BYTE> response;
    if (!CurrentSession->ReceiveResponse(response)) response = {};
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("%s request received %d bytes"), operation, static_cast<int>(response.size()));
    return IsAnswerTo(operation, request, response);
}

}  // namespace

bool IdentityReportLogon(IDENTITY_REQUEST& request, const IP_ADDRESS& address, const WCHAR* ipText,
                         const WCHAR* userName, const WCHAR* computerName) {
    PRINCIPAL user{TrimDomainSuffix(userName), {}, {}};
    PRINCIPAL computer{TrimDomainSuffix(computerName), {}, {}};
    const auto shown = [](const PRINCIPAL& who) { return who.IsAbsent() ? TEXT("<N/A>") : who.name.Text(); };
    DebugPrint(TEXT("IdentityReportLogon:\n    User name = \"%s\",\n    Computer name = \"%s\",\n    IPv%u address = "
                    "\"%s\""),
               shown(user), shown(computer), AddressVersion(address), ipText);

    DIRECTORY_BINDING binding;
    BindToDirectory(binding);
    GROUP_FIELDS groups;
    const bool isFutile = IsNeverToBeSent();  // a directory may take its time for each record that waits in the log
    if (!isFutile && !user.IsAbsent()) LookUpUser(user, binding, groups);
    if (!isFutile && !computer.IsAbsent()) LookUpComputer(computer, binding);

    if (!request.Encode(address, user, computer, groups)) return false;
    SetMessageId(request.request.Data(), ++RequestId);
    return SendRequest(TEXT("IdentityReportLogon"), request.request.Data(), request.Length());
}

bool IdentityReportHeartbeat(IDENTITY_REQUEST& request) {
    DebugPrint(TEXT("IdentityReportHeartbeat: Request length = %lu"), request.Length());
    request.SetReportKind(REPORT_KIND::HEARTBEAT);
    return SendRequest(TEXT("IdentityReportHeartbeat"), request.request.Data(), request.Length());
}

bool IdentityReportLogoff(IDENTITY_REQUEST& request) {
    request.SetReportKind(REPORT_KIND::LOGOFF);
    DebugPrint(TEXT("IdentityReportLogoff: NtUserName = \"%s\", IpAddress = \"%s\", Request length = %lu"),
               request.UserName(), request.AddressText(), request.Length());
    return SendRequest(TEXT("IdentityReportLogoff"), request.request.Data(), request.Length());
}

bool SendRequest(const WCHAR* operation, BYTE* request, DWORD length) {
    IDENTITY_PROTOCOL& session = *CurrentSession;
    bool answered = false;
    for (int attempt = 1; attempt <= MaxAttempts; ++attempt) {
        session.ProcessEvents();
        if (session.IsDisconnected()) {
            DebugPrint(TEXT("%s: disconnect recieved"), operation);
            if (!session.PersistentConnect()) break;
        }
        if (attempt > 1) ++ReportCounts.retried;
        SetMessageId(request, ++RequestId);
        DebugPrintMasked(DEBUG_VERBOSE, TEXT("%s sending %lu bytes"), operation, length);
        const int result = session.Send(request, length);
        if (result == 0) {
            answered = AwaitAnswer(operation, request);
            break;
        }
        DebugPrintMasked(DEBUG_ERROR, TEXT("Unable to send %s request.\n    %s Error code = %d. Retry #%u"), operation,
                         session.LastErrorText(), result, attempt);
    }
    ++(answered ? ReportCounts.answered : ReportCounts.failed);
    return answered;
}

bool IsAnswerTo(const WCHAR* operation, const BYTE* request, std::span<const BYTE> response) {
    if (response.size() != ResponseLength) {
        DebugPrintMasked(DEBUG_ERROR, TEXT("%s request response length = %d; %lu expected"), operation,
                         static_cast<int>(response.size()), ResponseLength);
        return false;
    }
    const RESPONSE_FIELDS fields = ReadResponse(request, response.data());
    if (!fields.IsAnswer()) {
        DebugPrintMasked(DEBUG_ERROR,
                         TEXT("Unexpected response for %s request: Code: request = %#x, response = %#x; ID: request = "
                              "%I32u, response = %I32u"),
                         operation, fields.requestCode, fields.code, fields.requestId, fields.id);
        return false;
    }
    DebugPrint(TEXT("%s request status = %I32u"), operation, fields.status);
    return true;
}

}  // namespace keldwick
