// Security identifiers as text.
#pragma once
#include <windows.h>
extern "C" BOOL WINAPI ConvertSidToStringSidW(PSID sid, LPWSTR* text);  // freed with LocalFree
