// Whether the machine is going down, which systemd does not say to the services that it stops for that.
#pragma once

namespace win32 {

// Asks systemd's manager over the system bus, for two seconds at most. False also when it cannot be asked.
bool IsMachineShuttingDown();

}  // namespace win32
