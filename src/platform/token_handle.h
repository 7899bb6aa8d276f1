// TOKEN_HANDLE: an access token, and what it says about the process's user.
#pragma once

#include <windows.h>

#include "platform/handles.h"
#include "platform/heap_buffer.h"

namespace keldwick {

class TOKEN_HANDLE : public HANDLE_OWNER {
public:
    using HANDLE_OWNER::HANDLE_OWNER;

    // False: the last error says why; with a message unless only the size was unknown.
    bool GetInformation(TOKEN_INFORMATION_CLASS what, HEAP_BUFFER& information) const;
    bool GetSessionId(DWORD& session) const;
    bool GetUserSid(HEAP_BUFFER& sid) const;  // a copy
};

// The user SID and session of the running process; true when both were read.
bool GetProcessUserSid(HEAP_BUFFER& sid, DWORD& session);

}  // namespace keldwick
