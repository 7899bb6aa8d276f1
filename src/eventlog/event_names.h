// Names of the events and event types that appear in record dumps.
#pragma once

#include <windows.h>

#include "platform/string.h"

namespace keldwick {

// By the low 16 bits of the event ID: its name when the agent knows the event, else the number as decimal text.
STRING EventName(DWORD eventId);

const WCHAR* EventTypeName(WORD eventType);  // "<Unknown>" for a type that is none of the documented five

}  // namespace keldwick
