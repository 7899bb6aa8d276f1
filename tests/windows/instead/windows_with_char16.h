// The Windows headers for the tests of the interfaces, included ahead of each of them. Their texts are of char16_t, as
// the layer's WCHAR is; Windows' own is wchar_t, of the same size. The calls are C's, so the type of a text is not in
// their names.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>

#define __STRALIGN_H_  // its inline functions call those of C
#define wchar_t char16_t
#include <winsock2.h>

#include <windows.h>  // after it, and before the others

#include <ntsecapi.h>
#include <ws2tcpip.h>
#undef wchar_t

inline int setenv(const char* name, const char* value, int) { return _putenv_s(name, value); }
inline int unsetenv(const char* name) { return _putenv_s(name, ""); }
