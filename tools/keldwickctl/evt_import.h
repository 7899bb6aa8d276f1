// The records of a classic .evt file, taken over as they are but for their numbers.
#pragma once

#include <string>

#include "tools/keldwickctl/event_sink.h"

// Gives the records that the file holds now to the sink, the oldest first (so a log may be imported into itself);
// damaged places go to it as unreadable. Throws COMMAND_ERROR when the file cannot be opened or read at all.
void ImportEvt(const std::string& path, EVENT_SINK& sink);
