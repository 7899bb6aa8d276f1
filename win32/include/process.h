// The runtime's thread start, which on Windows also sets up the C runtime's per-thread data.
#pragma once
#include <windows.h>
extern "C" uintptr_t _beginthreadex(void* security, unsigned stack, unsigned(WINAPI* routine)(void*), void* argument,
                                    unsigned flags, unsigned* threadId);  // a thread handle, or 0
