// The component's sentences about what went wrong.
#pragma once

#include <string>

#include "component/tls_engine.h"

namespace keldwick {

// One sentence with its period for a Winsock code that a connection can meet.
std::string SocketErrorText(int code);

// The same for an engine whose last result was Failed.
std::string FailureSentence(const TLS_ENGINE& engine);

}  // namespace keldwick
