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
#include <initializer_list>

namespace {

// The size, and where the fields after the first are.
constexpr bool Same(std::initializer_list<size_t> found, std::initializer_list<size_t> wanted) {
    return std::equal(found.begin(), found.end(), wanted.begin(), wanted.end());
}

static_assert(Same({sizeof(FILETIME), offsetof(FILETIME, dwHighDateTime)}, {8, 4}));
static_assert(Same({sizeof(SYSTEMTIME), offsetof(SYSTEMTIME, wMonth), offsetof(SYSTEMTIME, wDayOfWeek),
                    offsetof(SYSTEMTIME, wDay), offsetof(SYSTEMTIME, wHour), offsetof(SYSTEMTIME, wMinute),
                    offsetof(SYSTEMTIME, wSecond), offsetof(SYSTEMTIME, wMilliseconds)},
                   {16, 2, 4, 6, 8, 10, 12, 14}));
static_assert(Same({sizeof(LUID), offsetof(LUID, HighPart)}, {8, 4}));
static_assert(Same({sizeof(GUID), offsetof(GUID, Data2), offsetof(GUID, Data3), offsetof(GUID, Data4)}, {16, 4, 6, 8}));
static_assert(Same({sizeof(EVENTLOGRECORD), offsetof(EVENTLOGRECORD, Reserved), offsetof(EVENTLOGRECORD, RecordNumber),
                    offsetof(EVENTLOGRECORD, TimeGenerated), offsetof(EVENTLOGRECORD, TimeWritten),
                    offsetof(EVENTLOGRECORD, EventID), offsetof(EVENTLOGRECORD, EventType),
                    offsetof(EVENTLOGRECORD, NumStrings), offsetof(EVENTLOGRECORD, EventCategory),
                    offsetof(EVENTLOGRECORD, ReservedFlags), offsetof(EVENTLOGRECORD, ClosingRecordNumber),
                    offsetof(EVENTLOGRECORD, StringOffset), offsetof(EVENTLOGRECORD, UserSidLength),
                    offsetof(EVENTLOGRECORD, UserSidOffset), offsetof(EVENTLOGRECORD, DataLength),
                    offsetof(EVENTLOGRECORD, DataOffset)},
                   {56, 4, 8, 12, 16, 20, 24, 26, 28, 30, 32, 36, 40, 44, 48, 52}));
static_assert(Same({sizeof(SERVICE_STATUS), offsetof(SERVICE_STATUS, dwCurrentState),
                    offsetof(SERVICE_STATUS, dwControlsAccepted), offsetof(SERVICE_STATUS, dwWin32ExitCode),
                    offsetof(SERVICE_STATUS, dwServiceSpecificExitCode), offsetof(SERVICE_STATUS, dwCheckPoint),
                    offsetof(SERVICE_STATUS, dwWaitHint)},
                   {28, 4, 8, 12, 16, 20, 24}));
static_assert(Same({sizeof(SERVICE_TABLE_ENTRYW), offsetof(SERVICE_TABLE_ENTRYW, lpServiceProc)}, {16, 8}));
static_assert(Same({sizeof(OSVERSIONINFOW), offsetof(OSVERSIONINFOW, dwMajorVersion),
                    offsetof(OSVERSIONINFOW, dwMinorVersion), offsetof(OSVERSIONINFOW, dwBuildNumber),
                    offsetof(OSVERSIONINFOW, dwPlatformId), offsetof(OSVERSIONINFOW, szCSDVersion)},
                   {276, 4, 8, 12, 16, 20}));
static_assert(Same({sizeof(OSVERSIONINFOEXW), offsetof(OSVERSIONINFOEXW, dwMajorVersion),
                    offsetof(OSVERSIONINFOEXW, dwMinorVersion), offsetof(OSVERSIONINFOEXW, dwBuildNumber),
                    offsetof(OSVERSIONINFOEXW, dwPlatformId), offsetof(OSVERSIONINFOEXW, szCSDVersion),
                    offsetof(OSVERSIONINFOEXW, wServicePackMajor), offsetof(OSVERSIONINFOEXW, wServicePackMinor),
                    offsetof(OSVERSIONINFOEXW, wSuiteMask), offsetof(OSVERSIONINFOEXW, wProductType),
                    offsetof(OSVERSIONINFOEXW, wReserved)},
                   {284, 4, 8, 12, 16, 20, 276, 278, 280, 282, 283}));
static_assert(Same({sizeof(SID_IDENTIFIER_AUTHORITY)}, {6}));
static_assert(Same({sizeof(LUID_AND_ATTRIBUTES), offsetof(LUID_AND_ATTRIBUTES, Attributes)}, {12, 8}));
static_assert(Same({sizeof(TOKEN_PRIVILEGES), offsetof(TOKEN_PRIVILEGES, Privileges)}, {16, 4}));
static_assert(Same({sizeof(SID_AND_ATTRIBUTES), offsetof(SID_AND_ATTRIBUTES, Attributes)}, {16, 8}));
static_assert(Same({sizeof(TOKEN_USER)}, {16}));
static_assert(Same({sizeof(LSA_UNICODE_STRING), offsetof(LSA_UNICODE_STRING, MaximumLength),
                    offsetof(LSA_UNICODE_STRING, Buffer)},
                   {16, 2, 8}));
static_assert(Same({sizeof(LSA_OBJECT_ATTRIBUTES), offsetof(LSA_OBJECT_ATTRIBUTES, RootDirectory),
                    offsetof(LSA_OBJECT_ATTRIBUTES, ObjectName), offsetof(LSA_OBJECT_ATTRIBUTES, Attributes),
                    offsetof(LSA_OBJECT_ATTRIBUTES, SecurityDescriptor),
                    offsetof(LSA_OBJECT_ATTRIBUTES, SecurityQualityOfService)},
                   {48, 8, 16, 24, 32, 40}));
static_assert(Same({sizeof(LSA_TRUST_INFORMATION), offsetof(LSA_TRUST_INFORMATION, Sid)}, {24, 16}));
static_assert(Same({sizeof(LSA_REFERENCED_DOMAIN_LIST), offsetof(LSA_REFERENCED_DOMAIN_LIST, Domains)}, {16, 8}));
static_assert(Same({sizeof(LSA_TRANSLATED_NAME), offsetof(LSA_TRANSLATED_NAME, Name),
                    offsetof(LSA_TRANSLATED_NAME, DomainIndex)},
                   {32, 8, 24}));
static_assert(Same({sizeof(SAFEARRAYBOUND), offsetof(SAFEARRAYBOUND, lLbound)}, {8, 4}));
static_assert(Same({sizeof(SAFEARRAY), offsetof(SAFEARRAY, fFeatures), offsetof(SAFEARRAY, cbElements),
                    offsetof(SAFEARRAY, cLocks), offsetof(SAFEARRAY, pvData), offsetof(SAFEARRAY, rgsabound)},
                   {32, 2, 4, 8, 16, 24}));
static_assert(Same({sizeof(VARIANT), offsetof(VARIANT, lVal)}, {24, 8}));
static_assert(Same({sizeof(WSADATA), offsetof(WSADATA, wHighVersion), offsetof(WSADATA, szDescription),
                    offsetof(WSADATA, szSystemStatus)},
                   {408, 2, 16, 273}));
static_assert(Same({sizeof(WSANETWORKEVENTS), offsetof(WSANETWORKEVENTS, iErrorCode)}, {44, 4}));
static_assert(Same({sizeof(ADDRINFOW), offsetof(ADDRINFOW, ai_family), offsetof(ADDRINFOW, ai_socktype),
                    offsetof(ADDRINFOW, ai_protocol), offsetof(ADDRINFOW, ai_addrlen),
                    offsetof(ADDRINFOW, ai_canonname), offsetof(ADDRINFOW, ai_addr), offsetof(ADDRINFOW, ai_next)},
                   {48, 4, 8, 12, 16, 24, 32, 40}));
static_assert(Same({sizeof(tcp_keepalive), offsetof(tcp_keepalive, keepalivetime),
                    offsetof(tcp_keepalive, keepaliveinterval)},
                   {12, 4, 8}));

}  // namespace
