// What an event of the program's own says.
#pragma once

#include <windows.h>

#include <string>
#include <vector>

namespace win32 {

// The text of the program's message table with its strings, which may have several lines; the strings in a row when
// the table does not know the event.
std::string EventText(DWORD id, const std::vector<std::u16string>& strings);

}  // namespace win32
