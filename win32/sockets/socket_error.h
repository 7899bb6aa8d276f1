// Winsock's numbers for what the C library reports.
#pragma once

namespace win32 {

// The Winsock code for an errno value of a socket call; WSASYSCALLFAILURE (10107) for one without a counterpart.
int SocketErrorFromErrno(int number);

// The Winsock code for a result of getaddrinfo or getnameinfo (EAI_...); errorNumber: errno after the call, used by
// EAI_SYSTEM.
int SocketErrorFromLookup(int result, int errorNumber);

// Sets the thread's last error and returns SOCKET_ERROR.
int FailSocketCall(int code);

// Sets the thread's last error and returns it, as the look-ups of names and addresses do.
int FailLookup(int code);

}  // namespace win32
