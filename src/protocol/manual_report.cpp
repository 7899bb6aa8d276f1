#include "protocol/manual_report.h"

#include "diagnostics/debug_output.h"
#include "platform/host_names.h"
#include "platform/security.h"
#include "protocol/identity_protocol.h"
#include "protocol/identity_reports.h"
#include "service/command_line.h"
#include "service/settings.h"

namespace keldwick {

namespace {

// The NetBIOS name; empty when there is none to be had.
STRING LocalComputerName() {
    DWORD units = 0;
    if (GetComputerNameW(nullptr, &units) || GetLastError() != ERROR_BUFFER_OVERFLOW || units == 0) return {};
    STRING name(units);
    if (!GetComputerNameW(name.Buffer(), &units)) return {};
    name.Resize(units < name.Length() ? units : name.Length() - 1);
    return name;
}

// The account that this process runs under, and this computer, which a local account's name needs no domain for.
bool CurrentNames(STRING& user, STRING& computer) {
    HEAP_BUFFER sid;
    DWORD session = 0;
    if (!GetProcessUserSid(sid, session)) {
        DebugPrint(TEXT("Uanble to get current process information"));
        return false;
    }
    STRING domain;
    STRING account;
    if (!LsaLookupSidName(sid.Data(), domain, account)) {
        DebugPrint(TEXT("Uanble to get domain & user name for SID"));
        return false;
    }
    const STRING computerName = LocalComputerName();
    user = FormatString(TEXT("%s\\%s"), domain, account);
    computer = domain.EqualsNoCase(computerName) ? computerName : FormatString(TEXT("%s\\%s"), domain, computerName);
    return true;
}

}  // namespace

void RunManualReport() {
    STRING server;
    GetIdentServer(server);
    DebugPrint(TEXT("Connecting to Identity server = \"%s\" ..."), server);
    if (!CurrentSession->Connect(server)) {
        DebugPrint(TEXT("Unable to connect to Identity server = \"%s\" ..."), server);
        return;
    }
    IP_ADDRESS address(AF_INET);
    const STRING* ipText = nullptr;
    if (!GetLocalAddress(address, &ipText)) {
        DebugPrint(TEXT("Uanble to get local IP address"));
        return;
    }
    const WCHAR* user = CommandLine.userName;
    const WCHAR* computer = CommandLine.computerName;
    STRING currentUser;
    STRING currentComputer;
    if (user == nullptr || computer == nullptr) {
        if (!CurrentNames(currentUser, currentComputer)) return;
        if (user == nullptr) user = currentUser.Text();
        if (computer == nullptr) computer = currentComputer.Text();
    }
    ReportIdentity(address, ipText->Text(), user, computer);
}

void ReportIdentity(const IP_ADDRESS& address, const WCHAR* ipText, const WCHAR* userName, const WCHAR* computerName) {
    IDENTITY_REQUEST request;
    if (!IdentityReportLogon(request, address, ipText, userName, computerName)) {
        DebugPrint(TEXT("Unable to report identity: \n    IP address = \"%s\",\n    User name = \"%s\",\n    Computer "
                        "name = \"%s\""),
                   ipText, userName, computerName);
        return;
    }
    DebugPrint(TEXT("Identity reported: \n    IP address = \"%s\",\n    User name = \"%s\",\n    Computer name = "
                    "\"%s\",\n    Request length = %lu"),
               ipText, userName, computerName, request.Length());
    if (CommandLine.reportHeartbeat && !IdentityReportHeartbeat(request))
        DebugPrint(TEXT("Unable to report heartbeat: \n    IP address = \"%s\",\n    User name = \"%s\",\n    Computer "
                        "name = \"%s\""),
                   ipText, userName, computerName);
    if (CommandLine.reportLogoff && !IdentityReportLogoff(request))
        DebugPrint(TEXT("Unable to report logoff: \n    IP address = \"%s\",\n    User name = \"%s\",\n    Computer "
                        "name = \"%s\""),
                   ipText, userName, computerName);
}

}  // namespace keldwick
