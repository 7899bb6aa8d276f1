// The agent as a service: what the service control manager calls, and the reports to it.
#pragma once

#include <windows.h>

namespace keldwick {

constexpr const WCHAR* ServiceName = TEXT("Keldwick");

// Service-specific exit codes.
constexpr DWORD EXIT_INVALID_PARAMETER = 1;
constexpr DWORD EXIT_NOT_INITIALIZED = 2;
constexpr DWORD EXIT_STATUS_REFUSED = 3;

// Runs the service from its start parameters (the first is its name) to SERVICE_STOPPED.
void WINAPI ServiceMain(DWORD count, LPWSTR* arguments);

// Stop and shutdown stop the service; every other control is ERROR_CALL_NOT_IMPLEMENTED.
DWORD WINAPI ServiceControlHandler(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);

// True: the manager took the status. False: it did not, which has been reported, and the service has been reported
// stopped with EXIT_STATUS_REFUSED. Hint: milliseconds until the next report.
bool ReportServiceStatus(DWORD state, DWORD exitCode, bool serviceSpecific, DWORD checkPoint, DWORD waitHint);

}  // namespace keldwick
