// The names of the event messages: MSG_SERVICE_STARTED and so on, with the texts in message_table.inc.
#pragma once

#include <windows.h>

namespace keldwick {

#define KELDWICK_MESSAGE(name, id, text) inline constexpr DWORD name = id;
#include "resources/message_table.inc"
#undef KELDWICK_MESSAGE

}  // namespace keldwick
