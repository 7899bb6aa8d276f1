#include "service/stop.h"

#include "diagnostics/debug_output.h"
#include "diagnostics/event_source.h"
#include "platform/version.h"
#include "resources/message_ids.h"

namespace keldwick {

std::atomic<HANDLE> StopEvent;
std::atomic<HANDLE> SettingsNotifyEvent;
std::atomic<HANDLE> SettingsChangedEvent;

void StopService(const WCHAR* reason) {
    DebugPrint(TEXT("Stopping Service: Reason = %s"), reason);
    const HANDLE stopEvent = StopEvent;
    if (stopEvent == INVALID_HANDLE_VALUE) return;  // closed: as a handle it would stand for this process
    if (WaitForSingleObject(stopEvent, 0) != WAIT_TIMEOUT) return;
    ReportServiceEvent(EVENTLOG_INFORMATION_TYPE, MSG_SERVICE_STOPPED, {VersionText().Text(), reason});
    SetEvent(stopEvent);
}

}  // namespace keldwick
