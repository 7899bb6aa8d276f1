// The names that the tests' name server knows; numeric addresses go to the C library.
#pragma once

#include <map>
#include <string>
#include <vector>

// Waits until so many look-ups hang, lets them end, and waits until they have.
void ReviveNameServer(int lookups);
int HangingLookups();

// Of each name, its IPv4 addresses. "hang.example" is answered only by ReviveNameServer; all others are not found.
extern std::map<std::string, std::vector<std::string>> knownNames;
