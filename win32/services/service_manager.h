// The other side of a service: systemd, which is told of states by notify messages (Type=notify) and asks for a stop by
// SIGTERM or SIGINT.
#pragma once

#include <windows.h>

#include <string>

namespace win32 {

// Whether a service manager started this process and listens to it.
bool ServiceManagerPresent();

// The message for a state that a service reports. The state must be one of SERVICE_STOPPED to SERVICE_RUNNING.
std::string StateMessage(const SERVICE_STATUS& status);

// The message for a service that is about to stop; hint: milliseconds that it asks for, 0 none.
std::string StoppingMessage(DWORD waitHintMs = 0);

// The code that a stopped service gives its manager, service-specific or not.
DWORD CodeOf(const SERVICE_STATUS& status);

// Sends a message; false when it could not be delivered (last error set).
bool NotifyServiceManager(const std::string& message);

// While it lives, SIGTERM and SIGINT make its event signalled and do nothing else, and SIGHUP, by which daemons are
// asked to read their settings again, does nothing: changed settings are noticed anyway. One at a time.
class STOP_SIGNALS {
public:
    STOP_SIGNALS();
    ~STOP_SIGNALS();
    STOP_SIGNALS(const STOP_SIGNALS&) = delete;
    STOP_SIGNALS& operator=(const STOP_SIGNALS&) = delete;

    // Readable once a signal has come; -1: no descriptor was to be had (errno set).
    int Descriptor() const;
    // Forgets the signals that have come; true when there were any.
    bool Take();
};

}  // namespace win32
