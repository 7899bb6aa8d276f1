// The encoded logon request of one identity: kept as long as the identity lives, because heartbeats and logoffs send
// the same bytes again with another report kind. See identity_reports.h for the layout.
#pragma once

#include <windows.h>

#include "platform/heap_buffer.h"
#include "platform/string.h"

namespace keldwick {

constexpr DWORD NoPosition = MAXDWORD;  // the request has no such field

// The last byte of a request.
enum class REPORT_KIND : BYTE { LOGON = 0x20, LOGOFF = 0x21, HEARTBEAT = 0x30 };

struct IDENTITY_REQUEST {
    HEAP_BUFFER request;                  // the whole request; its size is the request length. Empty: not encoded
    DWORD userPosition = NoPosition;      // of the user name's count
    DWORD computerPosition = NoPosition;  // of the computer name's count
    DWORD addressPosition = NoPosition;   // of the address-version byte, followed by the address bytes
    DWORD reportKindPosition = NoPosition;

    DWORD Length() const { return request.Size(); }

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

}  // namespace keldwick
