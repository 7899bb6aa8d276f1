// The agent's one loop: reads the Security log, and keeps the connection to the identity server that its handlers
// report over.
#pragma once

namespace keldwick {

// Works on the calling thread until the service is to stop; the events and settings must be there.
void ServiceWorker();

}  // namespace keldwick
