// Starting threads so that they can be stopped again, and stopping them within a time limit.
#pragma once

#include <windows.h>

#include <initializer_list>

namespace keldwick {

using THREAD_ROUTINE = unsigned(WINAPI*)(void* argument);
using THREAD_STOP = void (*)(HANDLE argument);   // asks a thread, or all threads of an array, to end
using THREAD_LOG = void (*)(const WCHAR* line);  // takes one finished line

// What StopThreads is to stop: the one thread of a slot (null: not running), or every thread of an array of slots.
struct STOP_ENTRY {
    const WCHAR* name;
    THREAD_STOP stop;  // may be null
    HANDLE argument;   // given to stop
    HANDLE* slots;
    bool isArray = false;
    DWORD count = 1;  // of slots
};

// Asks the threads of all entries to stop, waits up to timeout milliseconds for them, and ends with TerminateThread
// those that still run after their wait. Closes every handle and empties its slot. The log may be null.
void StopThreads(DWORD timeout, THREAD_LOG log, std::initializer_list<STOP_ENTRY> entries);

// Started threads of one kind. When a group goes away with threads running it stops them, unless it was released.
class THREAD_GROUP {
public:
    // Over slots of the caller's, which must hold as many handles as threads are started, or, with owned, over slots
    // made with new[] that the group deletes.
    THREAD_GROUP(const WCHAR* groupName, HANDLE* slots, THREAD_LOG logRoutine, THREAD_STOP stopRoutine,
                 HANDLE stopArgument, bool owned = false);
    ~THREAD_GROUP();
    THREAD_GROUP(const THREAD_GROUP&) = delete;
    THREAD_GROUP& operator=(const THREAD_GROUP&) = delete;

    bool Start(THREAD_ROUTINE routine);  // into the next slot; false: no thread, the slot stays empty
    void Release();                      // the threads go on without the group, their slots with the caller

private:
    HANDLE* const begin;
    HANDLE* end;
    const THREAD_LOG log;
    const THREAD_STOP stop;
    const HANDLE argument;
    const WCHAR* const name;
    bool ownsSlots;
};

}  // namespace keldwick
