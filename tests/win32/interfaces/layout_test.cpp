// Sizes and places of what goes over the interfaces in structures, checked where this is compiled: by the layer's
// headers and by Windows' own. The first field is at 0.
#include <winsock2.h>

#include <mstcpip.h>
#include <ntsecapi.h>
#include <oleauto.h>
#include <windows.h>
#include <winsvc.h>
#include <ws2tcpip.h>

#include <algorithm>
#include <cstddef>

// The size, and where the fields after the first are.
#define AT(FIELD, PLACE) (offsetof(STRUCTURE, FIELD) == (PLACE))
#define LAYOUT(NAME, SIZE, ...)                                      \
    static_assert([] {                                               \
        using STRUCTURE = NAME;                                      \
        return std::min({sizeof(STRUCTURE) == (SIZE), __VA_ARGS__}); \
    }())

LAYOUT(FILETIME, 8, AT(dwHighDateTime, 4));
LAYOUT(SYSTEMTIME, 16, AT(wMonth, 2), AT(wDayOfWeek, 4), AT(wDay, 6), AT(wHour, 8), AT(wMinute, 10), AT(wSecond, 12),
       AT(wMilliseconds, 14));
LAYOUT(LUID, 8, AT(HighPart, 4));
LAYOUT(GUID, 16, AT(Data2, 4), AT(Data3, 6), AT(Data4, 8));
LAYOUT(EVENTLOGRECORD, 56, AT(Reserved, 4), AT(RecordNumber, 8), AT(TimeGenerated, 12), AT(TimeWritten, 16),
       AT(EventID, 20), AT(EventType, 24), AT(NumStrings, 26), AT(EventCategory, 28), AT(ReservedFlags, 30),
       AT(ClosingRecordNumber, 32), AT(StringOffset, 36), AT(UserSidLength, 40), AT(UserSidOffset, 44),
       AT(DataLength, 48), AT(DataOffset, 52));
LAYOUT(SERVICE_STATUS, 28, AT(dwCurrentState, 4), AT(dwControlsAccepted, 8), AT(dwWin32ExitCode, 12),
       AT(dwServiceSpecificExitCode, 16), AT(dwCheckPoint, 20), AT(dwWaitHint, 24));
LAYOUT(SERVICE_TABLE_ENTRYW, 16, AT(lpServiceProc, 8));
LAYOUT(OSVERSIONINFOW, 276, AT(dwMajorVersion, 4), AT(dwMinorVersion, 8), AT(dwBuildNumber, 12), AT(dwPlatformId, 16),
       AT(szCSDVersion, 20));
LAYOUT(OSVERSIONINFOEXW, 284, AT(dwMajorVersion, 4), AT(dwMinorVersion, 8), AT(dwBuildNumber, 12), AT(dwPlatformId, 16),
       AT(szCSDVersion, 20), AT(wServicePackMajor, 276), AT(wServicePackMinor, 278), AT(wSuiteMask, 280),
       AT(wProductType, 282), AT(wReserved, 283));
LAYOUT(SID_IDENTIFIER_AUTHORITY, 6);
LAYOUT(LUID_AND_ATTRIBUTES, 12, AT(Attributes, 8));
LAYOUT(TOKEN_PRIVILEGES, 16, AT(Privileges, 4));
LAYOUT(SID_AND_ATTRIBUTES, 16, AT(Attributes, 8));
LAYOUT(TOKEN_USER, 16);
LAYOUT(LSA_UNICODE_STRING, 16, AT(MaximumLength, 2), AT(Buffer, 8));
LAYOUT(LSA_OBJECT_ATTRIBUTES, 48, AT(RootDirectory, 8), AT(ObjectName, 16), AT(Attributes, 24),
       AT(SecurityDescriptor, 32), AT(SecurityQualityOfService, 40));
LAYOUT(LSA_TRUST_INFORMATION, 24, AT(Sid, 16));
LAYOUT(LSA_REFERENCED_DOMAIN_LIST, 16, AT(Domains, 8));
LAYOUT(LSA_TRANSLATED_NAME, 32, AT(Name, 8), AT(DomainIndex, 24));
LAYOUT(SAFEARRAYBOUND, 8, AT(lLbound, 4));
LAYOUT(SAFEARRAY, 32, AT(fFeatures, 2), AT(cbElements, 4), AT(cLocks, 8), AT(pvData, 16), AT(rgsabound, 24));
LAYOUT(VARIANT, 24, AT(lVal, 8));
LAYOUT(WSADATA, 408, AT(wHighVersion, 2), AT(szDescription, 16), AT(szSystemStatus, 273));
LAYOUT(WSANETWORKEVENTS, 44, AT(iErrorCode, 4));
LAYOUT(ADDRINFOW, 48, AT(ai_family, 4), AT(ai_socktype, 8), AT(ai_protocol, 12), AT(ai_addrlen, 16),
       AT(ai_canonname, 24), AT(ai_addr, 32), AT(ai_next, 40));
LAYOUT(tcp_keepalive, 12, AT(keepalivetime, 4), AT(keepaliveinterval, 8));
