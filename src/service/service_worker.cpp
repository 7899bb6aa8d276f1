#include "service/service_worker.h"

#include <iterator>

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "identity/handlers.h"
#include "platform/security.h"
#include "platform/string.h"
#include "platform/version.h"
#include "protocol/identity_protocol.h"
#include "resources/message_ids.h"
#include "service/command_line.h"
#include "service/stop.h"

namespace keldwick {

namespace {

constexpr const WCHAR* LogName = TEXT("Security");

// What the worker does after a piece of its work.
enum class NEXT { PROCESS, RECONNECT, LEAVE };

const WCHAR* DumpSuffix() {
    if (CommandLine.dumpPertinent && CommandLine.dumpNonPertinent) return TEXT("; dumping all events");
    if (CommandLine.dumpPertinent) return TEXT("; dumping pertinent events");
    if (CommandLine.dumpNonPertinent) return TEXT("; dumping non-pertinent events");
    return TEXT("");
}

void ReportStarted() {
    const STRING version = VersionText();
    DebugPrint(TEXT("Service version %s started%s"), version, DumpSuffix());
    ReportServiceEvent(EVENTLOG_INFORMATION_TYPE, MSG_SERVICE_STARTED, {version.Text()});
}

// Without the privilege the Security log does not open; that is said again, and tried again, by the reader.
void EnableSecurityPrivilege() {
    constexpr const WCHAR* name = TEXT("SeSecurityPrivilege");
    const PRIVILEGE_SET_OWNER privilege = CreateTokenPrivilegesHelper(SE_PRIVILEGE_ENABLED, name);
    const DWORD error = privilege ? SetTokenPrivileges(privilege) : GetLastError();
    if (error == ERROR_SUCCESS) {
        DebugPrint(TEXT("%s privilege enabled"), name);
    } else {
        DebugPrintError(error, TEXT("Unable to enable %s privilege"), name);
    }
}

// The log could not be read: waits a minute for anything else to do, then opens the log again.
NEXT PauseAndReopen(IDENTITY_PROTOCOL& session, EVENT_LOG& log) {
    enum SLOT : DWORD { STOP = WAIT_OBJECT_0, SETTINGS_CHANGED };
    const HANDLE events[] = {StopEvent, SettingsChangedEvent};
    const DWORD result = WaitForMultipleObjects(static_cast<DWORD>(std::size(events)), events, FALSE, RetryPauseMs);
    switch (result) {
        case STOP:
            DebugPrint(TEXT("Service stop signaled"));
            return NEXT::LEAVE;
        case SETTINGS_CHANGED:
            if (session.IdentServerChanged()) return NEXT::RECONNECT;
            DebugPrint(TEXT("Settings changed"));
            return NEXT::PROCESS;
        case WAIT_TIMEOUT:
            log.Close();
            if (log.Open(LogName)) return NEXT::PROCESS;
            StopService(FormatString(TEXT("Unable to re-open %s event log"), LogName));
            return NEXT::LEAVE;
        default:
            StopService(FormatString(TEXT("Unexpected event log wait result = %lu"), result));
            return NEXT::LEAVE;
    }
}

NEXT ProcessOnce(IDENTITY_PROTOCOL& session, EVENT_LOG& log) {
    DebugPrint(TEXT("Processing %s event log ..."), LogName);
    switch (log.Process(StopEvent, SettingsChangedEvent)) {
        case PROCESS_STOPPED:
            return NEXT::LEAVE;
        case PROCESS_SETTINGS_CHANGED:
            return session.IdentServerChanged() ? NEXT::RECONNECT : NEXT::PROCESS;
        default:
            return PauseAndReopen(session, log);
    }
}

// True: the session has been taken from the old server, and is to be connected to the new one.
bool ProcessWhileConnected(IDENTITY_PROTOCOL& session, EVENT_LOG& log) {
    NEXT next = NEXT::PROCESS;
    while (next == NEXT::PROCESS) next = ProcessOnce(session, log);
    if (next == NEXT::LEAVE) return false;
    DebugPrint(TEXT("Identity Server changed to \"%s\""), session.ServerName());
    session.SetDisconnected(true);
    session.Disconnect();
    return true;
}

}  // namespace

void ServiceWorker() {
    IDENTITY_PROTOCOL session;
    EVENT_LOG log(CommandLine, EventHandlers);
    CurrentSession = &session;

    ReportStarted();
    EnableSecurityPrivilege();
    if (log.Open(LogName)) {
        while (session.PersistentConnect() && ProcessWhileConnected(session, log)) {
        }
    }

    log.Identities().Clear();
    log.Close();
}

}  // namespace keldwick
