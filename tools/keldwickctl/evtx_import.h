// The records of an .evtx file, by libevtx.
#pragma once

#include <string>

#include "tools/keldwickctl/event_sink.h"

// Gives the file's records to the sink in their order; what libevtx cannot read goes to it as unreadable. Values that
// Windows shows without leading zeros (hexadecimal numbers) are given that way. Throws COMMAND_ERROR when the file
// cannot be opened at all.
void ImportEvtx(const std::string& path, EVENT_SINK& sink);
