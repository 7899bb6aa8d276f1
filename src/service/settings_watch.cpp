#include "service/settings_watch.h"

#include "diagnostics/debug_output.h"
#include "service/settings.h"
#include "service/stop.h"

namespace keldwick {

HANDLE SettingsThread;

unsigned WINAPI SettingsWatchThread(void*) {
    constexpr const WCHAR* name = TEXT("Settings");
    DebugPrint(TEXT("%s thread started"), name);

    const HANDLE events[] = {StopEvent, SettingsNotifyEvent};
    for (;;) {
        RegNotifyChangeKeyValue(SettingsKey.Get(), FALSE, REG_NOTIFY_CHANGE_LAST_SET, events[1], TRUE);
        switch (WaitForMultipleObjects(2, events, FALSE, INFINITE)) {
            case WAIT_OBJECT_0:
                DebugPrint(TEXT("%s thread normal exit"), name);
                return 0;
            case WAIT_OBJECT_0 + 1:
                ReloadSettings();
                break;
            default:
                DebugPrint(TEXT("%s thread abnormal exit"), name);
                return 1;
        }
    }
}

void StopSettingsThread(HANDLE event) {
    StopService(TEXT("stopping worker thread"));
    SetEvent(event);
}

}  // namespace keldwick
