// The code by which the identity server knows the agent's operating system.
#pragma once

#include <windows.h>

namespace keldwick {

// Asks the system's version test; the answer does not change while the process runs.
BYTE OsCode();

}  // namespace keldwick
