// What can happen to the connection, as bits that a waiter waits for.
#pragma once

#include <windows.h>

namespace keldwick {

using SESSION_EVENTS = DWORD;  // a set of the bits below
constexpr SESSION_EVENTS SESSION_ERROR = 0x01;
constexpr SESSION_EVENTS SESSION_CONNECTED = 0x02;
constexpr SESSION_EVENTS SESSION_READY_TO_SEND = 0x04;
constexpr SESSION_EVENTS SESSION_DATA_IN = 0x08;
constexpr SESSION_EVENTS SESSION_DISCONNECTED = 0x10;
constexpr SESSION_EVENTS SESSION_CERTIFICATE_ERROR = 0x20;

// The names of the bits, joined by a comma and a blank; empty for no bits. The text lives as long as the process.
const WCHAR* EventNames(SESSION_EVENTS events);

}  // namespace keldwick
