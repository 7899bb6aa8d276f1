// The bytes on the wire: what a request and a response look like, written and read here and nowhere else.
// docs/protocol.md is the picture of both. Integers are in network order, texts UTF-16 little-endian after a 16-bit
// count of their units.
#pragma once

#include <windows.h>

#include <span>

#include "directory/groups.h"
#include "platform/heap_buffer.h"
#include "platform/ip_address.h"
#include "platform/string.h"

namespace keldwick {

constexpr DWORD ResponseLength = 14;

// The code by which the server knows the agent's operating system. The system's version test decides; its answer does
// not change while the process runs.
BYTE OsCode();

// A user or a computer as a request names it. An empty name: none.
struct PRINCIPAL {
    STRING name, dn, ou;

    bool IsAbsent() const { return name.IsEmpty(); }
};

// The user's groups as a request carries them. The count may be that of a walk that broke off: then there are no bytes.
struct GROUP_FIELDS {
    DWORD count = 0;
    HEAP_BUFFER bytes;
};

// The list's groups, of which a request carries the fields only when `whole`. Where memory runs out the groups are
// counted but not carried.
GROUP_FIELDS EncodeGroups(const GROUP_LIST& list, bool whole);

constexpr DWORD NoPosition = MAXDWORD;  // the request has no such field

// The last byte of a request.
enum class REPORT_KIND : BYTE { LOGON = 0x20, LOGOFF = 0x21, HEARTBEAT = 0x30 };

// The encoded logon request of one identity: kept as long as the identity lives, because heartbeats and logoffs send
// the same bytes again with another report kind.
struct IDENTITY_REQUEST {
    HEAP_BUFFER request;                  // the whole request; its size is the request length. Empty: not encoded
    DWORD userPosition = NoPosition;      // of the user name's count
    DWORD computerPosition = NoPosition;  // of the computer name's count
    DWORD addressPosition = NoPosition;   // of the address-version byte, followed by the address bytes
    DWORD reportKindPosition = NoPosition;

    DWORD Length() const { return request.Size(); }

    // Encodes a logon, replacing what was held. The request ID is left to SetMessageId. False: there is no memory.
    bool Encode(const IP_ADDRESS& address, const PRINCIPAL& user, const PRINCIPAL& computer,
                const GROUP_FIELDS& groups);

    // The user name as it was encoded; empty without a user block.
    STRING UserName() const;

    // The computer name as it was encoded; empty without a computer block.
    STRING ComputerName() const;

    // Whether the encoded user name equals the given one, ignoring case. Allocates only when the letters' case differs.
    bool HasUserName(const STRING& name) const;

    // The encoded address, 4 or 16 bytes in network order, by its version byte; 0 and null when there is none.
    BYTE AddressVersion() const;
    const BYTE* AddressBytes() const;

    // The encoded address as text; empty for a version other than 4 and 6.
    STRING AddressText() const;

    void SetReportKind(REPORT_KIND kind);  // nothing happens before the request is encoded
};

// The ID of a request or of a response, which is at the same place in both.
void SetMessageId(BYTE* request, DWORD id);
DWORD MessageId(const BYTE* message);

// What the agent looks at in a response. The codes are as the bytes read little-endian, which is how they are logged.
struct RESPONSE_FIELDS {
    WORD requestCode, code;
    DWORD requestId, id;
    DWORD status;

    bool IsAnswer() const;  // it has the request's code, marked as a response's, and its ID
};

// Of ResponseLength bytes that came for the request.
RESPONSE_FIELDS ReadResponse(const BYTE* request, const BYTE* response);

}  // namespace keldwick
