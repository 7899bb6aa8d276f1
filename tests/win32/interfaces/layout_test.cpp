// Sizes and places of what goes over the interfaces in structures, checked where this is compiled: by the layer's
// headers and by Windows' own. A field of another width moves the last one or the end.
#include <winsock2.h>

#include <mstcpip.h>
#include <ntsecapi.h>
#include <oleauto.h>
#include <windows.h>
#include <winsvc.h>
#include <ws2tcpip.h>

#include <cstddef>

namespace {

#define ENDS_WITH(STRUCTURE, FIELD, OFFSET, SIZE) \
    static_assert(offsetof(STRUCTURE, FIELD) == (OFFSET) && sizeof(STRUCTURE) == (SIZE))

ENDS_WITH(FILETIME, dwHighDateTime, 4, 8);
ENDS_WITH(SYSTEMTIME, wMilliseconds, 14, 16);
ENDS_WITH(LUID, HighPart, 4, 8);
ENDS_WITH(GUID, Data4, 8, 16);
ENDS_WITH(EVENTLOGRECORD, EventType, 24, 56);  // the only one that is written to files
ENDS_WITH(EVENTLOGRECORD, DataOffset, 52, 56);
ENDS_WITH(SERVICE_STATUS, dwWaitHint, 24, 28);
ENDS_WITH(SERVICE_TABLE_ENTRYW, lpServiceProc, 8, 16);
ENDS_WITH(OSVERSIONINFOW, szCSDVersion, 20, 276);
ENDS_WITH(OSVERSIONINFOEXW, wReserved, 283, 284);
ENDS_WITH(SID_IDENTIFIER_AUTHORITY, Value, 0, 6);
ENDS_WITH(TOKEN_PRIVILEGES, Privileges[0].Attributes, 12, 16);
ENDS_WITH(TOKEN_USER, User.Attributes, 8, 16);
ENDS_WITH(LSA_UNICODE_STRING, Buffer, 8, 16);
ENDS_WITH(LSA_OBJECT_ATTRIBUTES, SecurityQualityOfService, 40, 48);
ENDS_WITH(LSA_REFERENCED_DOMAIN_LIST, Domains, 8, 16);
ENDS_WITH(LSA_TRUST_INFORMATION, Sid, 16, 24);
ENDS_WITH(LSA_TRANSLATED_NAME, DomainIndex, 24, 32);
ENDS_WITH(SAFEARRAY, rgsabound[0].lLbound, 28, 32);
ENDS_WITH(VARIANT, lVal, 8, 24);
ENDS_WITH(WSADATA, szSystemStatus, 273, 408);
ENDS_WITH(WSANETWORKEVENTS, iErrorCode, 4, 44);
ENDS_WITH(ADDRINFOW, ai_next, 40, 48);
ENDS_WITH(tcp_keepalive, keepaliveinterval, 8, 12);

}  // namespace
