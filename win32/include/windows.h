// The Windows interfaces that the agent calls, as the layer supplies them on Linux: types, constants and calls under
// the names, values and signatures that Microsoft documents. Sections: types, errors, text, memory, time,
// synchronisation, threads, files, modules and resources, registry, event log, services, system and user.
#pragma once

#include <cstddef>
#include <cstdint>

// ---- Types --------------------------------------------------------------------------------------------------------

typedef int BOOL;
typedef unsigned char BYTE;
typedef char CHAR;
typedef int16_t SHORT;
typedef uint16_t WORD, USHORT;
typedef int32_t INT, LONG;
typedef uint32_t UINT, DWORD, ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG, DWORDLONG;
typedef uintptr_t ULONG_PTR, DWORD_PTR;
typedef intptr_t INT_PTR;
typedef size_t SIZE_T;
typedef void *PVOID, *LPVOID, *HANDLE, *HGLOBAL, *HLOCAL;
typedef const void* LPCVOID;
typedef char16_t WCHAR;
typedef CHAR* LPSTR;
typedef const CHAR* LPCSTR;
typedef WCHAR *LPWSTR, *PWSTR;
typedef const WCHAR *LPCWSTR, *PCWSTR;
typedef BYTE* LPBYTE;
typedef DWORD *LPDWORD, *PDWORD;
typedef BOOL* LPBOOL;
typedef HANDLE* PHANDLE;
typedef LONG HRESULT, NTSTATUS, LSTATUS;
typedef DWORD LCID, ACCESS_MASK, REGSAM;

#define DECLARE_HANDLE(name) \
    struct name##__;         \
    typedef struct name##__* name
DECLARE_HANDLE(HINSTANCE);
DECLARE_HANDLE(HKEY);
DECLARE_HANDLE(HRSRC);
DECLARE_HANDLE(HWND);
DECLARE_HANDLE(SERVICE_STATUS_HANDLE);
typedef HINSTANCE HMODULE;
typedef HKEY* PHKEY;

typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    };
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;
typedef struct _FILETIME {
    DWORD dwLowDateTime, dwHighDateTime;
} FILETIME, *PFILETIME, *LPFILETIME;
typedef struct _SYSTEMTIME {
    WORD wYear, wMonth, wDayOfWeek, wDay, wHour, wMinute, wSecond, wMilliseconds;
} SYSTEMTIME, *PSYSTEMTIME, *LPSYSTEMTIME;
typedef struct _LUID {
    DWORD LowPart;
    LONG HighPart;
} LUID, *PLUID;
typedef struct _GUID {
    DWORD Data1;
    WORD Data2, Data3;
    BYTE Data4[8];
} GUID, IID, CLSID;
typedef const GUID &REFGUID, &REFIID, &REFCLSID;
typedef struct _SECURITY_ATTRIBUTES* LPSECURITY_ATTRIBUTES;
typedef struct _OVERLAPPED OVERLAPPED, *LPOVERLAPPED;
typedef PVOID PSID;

#define TRUE 1
#define FALSE 0
#define WINAPI
#define CALLBACK
#define NTAPI
#define STDMETHODCALLTYPE
#define TEXT(quote) u##quote
#define MAX_PATH 260
#define MAXDWORD 0xFFFFFFFFu
#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<INT_PTR>(-1)))
#define LOBYTE(w) (static_cast<BYTE>((w)&0xFF))
#define HIBYTE(w) (static_cast<BYTE>(((w) >> 8) & 0xFF))
#define LOWORD(l) (static_cast<WORD>((l)&0xFFFF))
#define HIWORD(l) (static_cast<WORD>(((l) >> 16) & 0xFFFF))
#define MAKEINTRESOURCEW(id) (reinterpret_cast<LPWSTR>(static_cast<ULONG_PTR>(static_cast<WORD>(id))))

extern "C" {

// ---- Errors -------------------------------------------------------------------------------------------------------

#define ERROR_SUCCESS 0
#define NO_ERROR 0
#define ERROR_FILE_NOT_FOUND 2
#define ERROR_PATH_NOT_FOUND 3
#define ERROR_TOO_MANY_OPEN_FILES 4
#define ERROR_ACCESS_DENIED 5
#define ERROR_INVALID_HANDLE 6
#define ERROR_NOT_ENOUGH_MEMORY 8
#define ERROR_INVALID_DATA 13
#define ERROR_NOT_SAME_DEVICE 17
#define ERROR_WRITE_PROTECT 19
#define ERROR_NOT_READY 21
#define ERROR_WRITE_FAULT 29
#define ERROR_READ_FAULT 30
#define ERROR_GEN_FAILURE 31
#define ERROR_SHARING_VIOLATION 32
#define ERROR_LOCK_VIOLATION 33
#define ERROR_HANDLE_EOF 38
#define ERROR_NOT_SUPPORTED 50
#define ERROR_FILE_EXISTS 80
#define ERROR_INVALID_PARAMETER 87
#define ERROR_BROKEN_PIPE 109
#define ERROR_BUFFER_OVERFLOW 111
#define ERROR_DISK_FULL 112
#define ERROR_CALL_NOT_IMPLEMENTED 120
#define ERROR_INSUFFICIENT_BUFFER 122
#define ERROR_INVALID_NAME 123
#define ERROR_MOD_NOT_FOUND 126
#define ERROR_PROC_NOT_FOUND 127
#define ERROR_DIR_NOT_EMPTY 145
#define ERROR_BAD_PATHNAME 161
#define ERROR_BUSY 170
#define ERROR_ALREADY_EXISTS 183
#define ERROR_ENVVAR_NOT_FOUND 203
#define ERROR_FILENAME_EXCED_RANGE 206
#define ERROR_FILE_TOO_LARGE 223
#define ERROR_MORE_DATA 234
#define WAIT_TIMEOUT 258
#define ERROR_NO_MORE_ITEMS 259
#define ERROR_DIRECTORY 267
#define ERROR_MR_MID_NOT_FOUND 317
#define ERROR_NOACCESS 998
#define ERROR_KEY_DELETED 1018
#define ERROR_BADDB 1009
#define ERROR_FAILED_SERVICE_CONTROLLER_CONNECT 1063
#define ERROR_SERVICE_SPECIFIC_ERROR 1066
#define ERROR_NO_UNICODE_TRANSLATION 1113
#define ERROR_IO_DEVICE 1117
#define ERROR_CANCELLED 1223
#define ERROR_NOT_ALL_ASSIGNED 1300
#define ERROR_NO_SUCH_PRIVILEGE 1313
#define ERROR_PRIVILEGE_NOT_HELD 1314
#define ERROR_LOGON_FAILURE 1326
#define ERROR_NONE_MAPPED 1332
#define ERROR_INVALID_SID 1337
#define ERROR_EVENTLOG_FILE_CORRUPT 1500
#define ERROR_LOG_FILE_FULL 1502
#define ERROR_EVENTLOG_FILE_CHANGED 1503
#define ERROR_INVALID_DATATYPE 1804
#define ERROR_RESOURCE_DATA_NOT_FOUND 1812
#define ERROR_RESOURCE_TYPE_NOT_FOUND 1813
#define ERROR_RESOURCE_NAME_NOT_FOUND 1814
#define ERROR_CANT_ACCESS_FILE 1920
#define ERROR_NO_SYSTEM_RESOURCES 1450

#define SUCCEEDED(hr) (static_cast<HRESULT>(hr) >= 0)
#define FAILED(hr) (static_cast<HRESULT>(hr) < 0)
#define S_OK (static_cast<HRESULT>(0))
#define S_FALSE (static_cast<HRESULT>(1))
#define E_NOTIMPL (static_cast<HRESULT>(0x80004001u))
#define E_NOINTERFACE (static_cast<HRESULT>(0x80004002u))
#define E_POINTER (static_cast<HRESULT>(0x80004003u))
#define E_FAIL (static_cast<HRESULT>(0x80004005u))
#define E_UNEXPECTED (static_cast<HRESULT>(0x8000FFFFu))
#define E_ACCESSDENIED (static_cast<HRESULT>(0x80070005u))
#define E_OUTOFMEMORY (static_cast<HRESULT>(0x8007000Eu))
#define E_INVALIDARG (static_cast<HRESULT>(0x80070057u))

DWORD WINAPI GetLastError();
void WINAPI SetLastError(DWORD code);

#define FORMAT_MESSAGE_ALLOCATE_BUFFER 0x00000100
#define FORMAT_MESSAGE_IGNORE_INSERTS 0x00000200
#define FORMAT_MESSAGE_FROM_HMODULE 0x00000800
#define FORMAT_MESSAGE_FROM_SYSTEM 0x00001000
#define FORMAT_MESSAGE_ARGUMENT_ARRAY 0x00002000
#define FORMAT_MESSAGE_MAX_WIDTH_MASK 0x000000FF
// With FORMAT_MESSAGE_ARGUMENT_ARRAY the last argument is an array of DWORD_PTR; without it, a va_list pointer is not
// supported by the layer, which answers ERROR_INVALID_PARAMETER when inserts would need one.
DWORD WINAPI FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer, DWORD size,
                            void* arguments);

// ---- Text ---------------------------------------------------------------------------------------------------------

#define CP_UTF8 65001
#define LOCALE_USER_DEFAULT 0x0400
int WINAPI MultiByteToWideChar(UINT codePage, DWORD flags, LPCSTR text, int bytes, LPWSTR wide, int units);
int WINAPI WideCharToMultiByte(UINT codePage, DWORD flags, LPCWSTR wide, int units, LPSTR text, int bytes,
                               LPCSTR defaultChar, LPBOOL usedDefault);
int WINAPI lstrlenW(LPCWSTR text);
LPWSTR WINAPI lstrcpyW(LPWSTR to, LPCWSTR from);
int WINAPI lstrcmpW(LPCWSTR a, LPCWSTR b);
int WINAPI lstrcmpiW(LPCWSTR a, LPCWSTR b);
#define NORM_IGNORECASE 0x00000001
#define LCMAP_SORTKEY 0x00000400
// Sort keys only, in the user's order whatever the locale: `key` takes bytes, and their number is given (0 bytes of
// room: only the number). Units below 0: the text ends at its NUL.
int WINAPI LCMapStringW(LCID locale, DWORD flags, LPCWSTR text, int units, LPWSTR key, int keyBytes);
// A pointer whose upper bits are 0 is one UTF-16 unit, returned converted; otherwise the text is converted in place.
LPWSTR WINAPI CharUpperW(LPWSTR text);
DWORD WINAPI ExpandEnvironmentStringsW(LPCWSTR text, LPWSTR buffer, DWORD units);
DWORD WINAPI GetEnvironmentVariableW(LPCWSTR name, LPWSTR buffer, DWORD units);
LCID WINAPI GetThreadLocale();

// ---- Memory -------------------------------------------------------------------------------------------------------

#define LMEM_FIXED 0x0000
#define LMEM_ZEROINIT 0x0040
#define LPTR (LMEM_FIXED | LMEM_ZEROINIT)
HLOCAL WINAPI LocalAlloc(UINT flags, SIZE_T bytes);
HLOCAL WINAPI LocalFree(HLOCAL memory);  // null on success
#define MEM_COMMIT 0x00001000
#define MEM_RESERVE 0x00002000
#define MEM_RELEASE 0x00008000
#define PAGE_READWRITE 0x04
// Pages of zeros to read and write, anywhere: the address null, the type MEM_RESERVE | MEM_COMMIT, the protection
// PAGE_READWRITE. Null: the last error.
LPVOID WINAPI VirtualAlloc(LPVOID address, SIZE_T bytes, DWORD type, DWORD protection);
BOOL WINAPI VirtualFree(LPVOID address, SIZE_T bytes, DWORD type);  // the whole: bytes 0, type MEM_RELEASE

// ---- Time ---------------------------------------------------------------------------------------------------------

void WINAPI GetSystemTimeAsFileTime(LPFILETIME time);
void WINAPI GetLocalTime(LPSYSTEMTIME time);
BOOL WINAPI FileTimeToLocalFileTime(const FILETIME* utc, LPFILETIME local);
BOOL WINAPI LocalFileTimeToFileTime(const FILETIME* local, LPFILETIME utc);
BOOL WINAPI FileTimeToSystemTime(const FILETIME* time, LPSYSTEMTIME fields);
BOOL WINAPI SystemTimeToFileTime(const SYSTEMTIME* fields, LPFILETIME time);
void WINAPI Sleep(DWORD milliseconds);
ULONGLONG WINAPI GetTickCount64();

// ---- Synchronisation ----------------------------------------------------------------------------------------------

#define INFINITE 0xFFFFFFFFu
#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED_0 0x80u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64

HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES security, BOOL manualReset, BOOL initiallySet, LPCWSTR name);
BOOL WINAPI SetEvent(HANDLE event);
BOOL WINAPI ResetEvent(HANDLE event);
HANDLE WINAPI CreateWaitableTimerW(LPSECURITY_ATTRIBUTES security, BOOL manualReset, LPCWSTR name);
typedef void(CALLBACK* PTIMERAPCROUTINE)(LPVOID argument, DWORD low, DWORD high);
// due: positive is absolute UTC in 100-ns units since 1601, negative relative. No completion routine is supported.
BOOL WINAPI SetWaitableTimer(HANDLE timer, const LARGE_INTEGER* due, LONG periodMs, PTIMERAPCROUTINE routine,
                             LPVOID argument, BOOL resume);
DWORD WINAPI WaitForSingleObject(HANDLE handle, DWORD milliseconds);
DWORD WINAPI WaitForMultipleObjects(DWORD count, const HANDLE* handles, BOOL all, DWORD milliseconds);
BOOL WINAPI CloseHandle(HANDLE handle);

// A recursive lock; the layer keeps its mutex in Storage.
typedef struct _RTL_CRITICAL_SECTION {
    alignas(16) BYTE Storage[64];
} CRITICAL_SECTION, *LPCRITICAL_SECTION;
BOOL WINAPI InitializeCriticalSectionAndSpinCount(LPCRITICAL_SECTION section, DWORD spins);
void WINAPI EnterCriticalSection(LPCRITICAL_SECTION section);
void WINAPI LeaveCriticalSection(LPCRITICAL_SECTION section);
void WINAPI DeleteCriticalSection(LPCRITICAL_SECTION section);

// ---- Processes and threads ----------------------------------------------------------------------------------------

// Abandons the thread: it is never interrupted midway, its handle becomes signalled at once.
BOOL WINAPI TerminateThread(HANDLE thread, DWORD exitCode);
DWORD WINAPI GetCurrentProcessId();
DWORD WINAPI GetCurrentThreadId();
HANDLE WINAPI GetCurrentProcess();
#define TLS_OUT_OF_INDEXES 0xFFFFFFFFu
DWORD WINAPI TlsAlloc();
LPVOID WINAPI TlsGetValue(DWORD index);
BOOL WINAPI TlsSetValue(DWORD index, LPVOID value);

// ---- Files --------------------------------------------------------------------------------------------------------

#define FILE_APPEND_DATA 0x0004
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define FILE_SHARE_READ 0x00000001
#define FILE_SHARE_WRITE 0x00000002
#define FILE_SHARE_DELETE 0x00000004
#define CREATE_NEW 1
#define CREATE_ALWAYS 2
#define OPEN_EXISTING 3
#define OPEN_ALWAYS 4
#define FILE_ATTRIBUTE_READONLY 0x00000001
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010
#define FILE_ATTRIBUTE_NORMAL 0x00000080
#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu
HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                          DWORD flags, HANDLE templateFile);
BOOL WINAPI WriteFile(HANDLE file, LPCVOID bytes, DWORD count, LPDWORD written, LPOVERLAPPED overlapped);
BOOL WINAPI MoveFileW(LPCWSTR from, LPCWSTR to);
#define MOVEFILE_REPLACE_EXISTING 0x00000001
BOOL WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags);
BOOL WINAPI DeleteFileW(LPCWSTR path);
BOOL WINAPI CreateDirectoryW(LPCWSTR path, LPSECURITY_ATTRIBUTES security);
DWORD WINAPI GetFileAttributesW(LPCWSTR path);
DWORD WINAPI SearchPathW(LPCWSTR path, LPCWSTR file, LPCWSTR extension, DWORD units, LPWSTR buffer, LPWSTR* filePart);
#define STD_OUTPUT_HANDLE (static_cast<DWORD>(-11))
HANDLE WINAPI GetStdHandle(DWORD which);

// ---- Modules and resources ----------------------------------------------------------------------------------------

#define LOAD_LIBRARY_AS_DATAFILE 0x00000002
#define LOAD_WITH_ALTERED_SEARCH_PATH 0x00000008
#define RT_STRING MAKEINTRESOURCEW(6)
typedef INT_PTR(WINAPI* FARPROC)();
HMODULE WINAPI GetModuleHandleW(LPCWSTR name);
DWORD WINAPI GetModuleFileNameW(HMODULE module, LPWSTR buffer, DWORD units);
HMODULE WINAPI LoadLibraryExW(LPCWSTR path, HANDLE reserved, DWORD flags);
BOOL WINAPI FreeLibrary(HMODULE module);
FARPROC WINAPI GetProcAddress(HMODULE module, LPCSTR name);
HRSRC WINAPI FindResourceW(HMODULE module, LPCWSTR name, LPCWSTR type);
HGLOBAL WINAPI LoadResource(HMODULE module, HRSRC resource);
LPVOID WINAPI LockResource(HGLOBAL data);
DWORD WINAPI SizeofResource(HMODULE module, HRSRC resource);
DWORD WINAPI GetFileVersionInfoSizeW(LPCWSTR file, LPDWORD ignored);
BOOL WINAPI GetFileVersionInfoW(LPCWSTR file, DWORD ignored, DWORD bytes, LPVOID block);
BOOL WINAPI VerQueryValueW(LPCVOID block, LPCWSTR subBlock, LPVOID* value, UINT* length);

// ---- Registry -----------------------------------------------------------------------------------------------------

#define HKEY_LOCAL_MACHINE (reinterpret_cast<HKEY>(static_cast<ULONG_PTR>(0x80000002u)))
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_MULTI_SZ 7
#define REG_QWORD 11
#define KEY_QUERY_VALUE 0x0001
#define KEY_SET_VALUE 0x0002
#define KEY_NOTIFY 0x0010
#define KEY_READ 0x20019
#define KEY_WRITE 0x20006
#define KEY_ALL_ACCESS 0xF003F
#define REG_OPTION_NON_VOLATILE 0
#define REG_CREATED_NEW_KEY 1
#define REG_OPENED_EXISTING_KEY 2
#define REG_NOTIFY_CHANGE_LAST_SET 0x00000004
LSTATUS WINAPI RegOpenKeyExW(HKEY key, LPCWSTR subKey, DWORD options, REGSAM access, PHKEY result);
LSTATUS WINAPI RegCreateKeyExW(HKEY key, LPCWSTR subKey, DWORD reserved, LPWSTR className, DWORD options, REGSAM access,
                               const LPSECURITY_ATTRIBUTES security, PHKEY result, LPDWORD disposition);
LSTATUS WINAPI RegQueryValueExW(HKEY key, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD bytes);
LSTATUS WINAPI RegSetValueExW(HKEY key, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD bytes);
LSTATUS WINAPI RegDeleteValueW(HKEY key, LPCWSTR name);
LSTATUS WINAPI RegNotifyChangeKeyValue(HKEY key, BOOL subtree, DWORD filter, HANDLE event, BOOL asynchronous);
LSTATUS WINAPI RegCloseKey(HKEY key);

// ---- Event log ----------------------------------------------------------------------------------------------------

typedef struct _EVENTLOGRECORD {
    DWORD Length, Reserved, RecordNumber, TimeGenerated, TimeWritten, EventID;
    WORD EventType, NumStrings, EventCategory, ReservedFlags;
    DWORD ClosingRecordNumber, StringOffset, UserSidLength, UserSidOffset, DataLength, DataOffset;
    // Then: source name, computer name (NUL-terminated UTF-16), user SID, strings, data, padding to 4, Length again.
} EVENTLOGRECORD, *PEVENTLOGRECORD;
#define EVENTLOG_SEQUENTIAL_READ 0x0001
#define EVENTLOG_SEEK_READ 0x0002
#define EVENTLOG_FORWARDS_READ 0x0004
#define EVENTLOG_BACKWARDS_READ 0x0008
#define EVENTLOG_SUCCESS 0x0000
#define EVENTLOG_ERROR_TYPE 0x0001
#define EVENTLOG_WARNING_TYPE 0x0002
#define EVENTLOG_INFORMATION_TYPE 0x0004
#define EVENTLOG_AUDIT_SUCCESS 0x0008
#define EVENTLOG_AUDIT_FAILURE 0x0010
HANDLE WINAPI OpenEventLogW(LPCWSTR server, LPCWSTR log);
BOOL WINAPI CloseEventLog(HANDLE log);
BOOL WINAPI ReadEventLogW(HANDLE log, DWORD flags, DWORD offset, LPVOID buffer, DWORD bytes, DWORD* bytesRead,
                          DWORD* bytesNeeded);
BOOL WINAPI GetNumberOfEventLogRecords(HANDLE log, PDWORD count);
BOOL WINAPI GetOldestEventLogRecord(HANDLE log, PDWORD number);
BOOL WINAPI NotifyChangeEventLog(HANDLE log, HANDLE event);
BOOL WINAPI ClearEventLogW(HANDLE log, LPCWSTR backupFile);
HANDLE WINAPI RegisterEventSourceW(LPCWSTR server, LPCWSTR source);
BOOL WINAPI DeregisterEventSource(HANDLE source);
BOOL WINAPI ReportEventW(HANDLE source, WORD type, WORD category, DWORD id, PSID user, WORD strings, DWORD dataBytes,
                         LPCWSTR* texts, LPVOID data);

// ---- Services -----------------------------------------------------------------------------------------------------

typedef struct _SERVICE_STATUS {
    DWORD dwServiceType, dwCurrentState, dwControlsAccepted, dwWin32ExitCode, dwServiceSpecificExitCode, dwCheckPoint,
        dwWaitHint;
} SERVICE_STATUS, *LPSERVICE_STATUS;
typedef void(WINAPI* LPSERVICE_MAIN_FUNCTIONW)(DWORD count, LPWSTR* arguments);
typedef DWORD(WINAPI* LPHANDLER_FUNCTION_EX)(DWORD control, DWORD eventType, LPVOID eventData, LPVOID context);
typedef struct _SERVICE_TABLE_ENTRYW {
    LPWSTR lpServiceName;
    LPSERVICE_MAIN_FUNCTIONW lpServiceProc;
} SERVICE_TABLE_ENTRYW, *LPSERVICE_TABLE_ENTRYW;
#define SERVICE_WIN32_OWN_PROCESS 0x00000010
#define SERVICE_INTERACTIVE_PROCESS 0x00000100
#define SERVICE_STOPPED 1
#define SERVICE_START_PENDING 2
#define SERVICE_STOP_PENDING 3
#define SERVICE_RUNNING 4
#define SERVICE_ACCEPT_STOP 1
#define SERVICE_ACCEPT_SHUTDOWN 4
#define SERVICE_CONTROL_STOP 1
#define SERVICE_CONTROL_INTERROGATE 4
#define SERVICE_CONTROL_SHUTDOWN 5
BOOL WINAPI StartServiceCtrlDispatcherW(const SERVICE_TABLE_ENTRYW* table);
SERVICE_STATUS_HANDLE WINAPI RegisterServiceCtrlHandlerExW(LPCWSTR name, LPHANDLER_FUNCTION_EX handler, LPVOID context);
BOOL WINAPI SetServiceStatus(SERVICE_STATUS_HANDLE service, LPSERVICE_STATUS status);

// ---- System and user ----------------------------------------------------------------------------------------------

typedef struct _OSVERSIONINFOW {
    DWORD dwOSVersionInfoSize, dwMajorVersion, dwMinorVersion, dwBuildNumber, dwPlatformId;
    WCHAR szCSDVersion[128];
} OSVERSIONINFOW, *LPOSVERSIONINFOW;
typedef struct _OSVERSIONINFOEXW {
    DWORD dwOSVersionInfoSize, dwMajorVersion, dwMinorVersion, dwBuildNumber, dwPlatformId;
    WCHAR szCSDVersion[128];
    WORD wServicePackMajor, wServicePackMinor, wSuiteMask;
    BYTE wProductType, wReserved;
} OSVERSIONINFOEXW, *LPOSVERSIONINFOEXW;
#define VER_NT_WORKSTATION 1
#define VER_NT_SERVER 3
#define VER_MINORVERSION 0x0000001
#define VER_MAJORVERSION 0x0000002
#define VER_SERVICEPACKMAJOR 0x0000020
#define VER_PRODUCT_TYPE 0x0000080
#define VER_EQUAL 1
#define VER_GREATER_EQUAL 3
BOOL WINAPI GetVersionExW(LPOSVERSIONINFOW version);
ULONGLONG WINAPI VerSetConditionMask(ULONGLONG mask, DWORD type, BYTE condition);
BOOL WINAPI VerifyVersionInfoW(LPOSVERSIONINFOEXW version, DWORD types, DWORDLONG mask);
BOOL WINAPI GetComputerNameW(LPWSTR buffer, LPDWORD units);
void WINAPI OutputDebugStringW(LPCWSTR text);
#define MB_OK 0x00000000
#define MB_ICONEXCLAMATION 0x00000030
int WINAPI MessageBoxW(HWND owner, LPCWSTR text, LPCWSTR caption, UINT type);

// ---- Security -----------------------------------------------------------------------------------------------------

typedef struct _SID_IDENTIFIER_AUTHORITY {
    BYTE Value[6];
} SID_IDENTIFIER_AUTHORITY, *PSID_IDENTIFIER_AUTHORITY;
typedef enum _SID_NAME_USE {
    SidTypeUser = 1,
    SidTypeGroup,
    SidTypeDomain,
    SidTypeAlias,
    SidTypeWellKnownGroup,
    SidTypeDeletedAccount,
    SidTypeInvalid,
    SidTypeUnknown,
    SidTypeComputer
} SID_NAME_USE,
    *PSID_NAME_USE;
typedef struct _LUID_AND_ATTRIBUTES {
    LUID Luid;
    DWORD Attributes;
} LUID_AND_ATTRIBUTES;
typedef struct _TOKEN_PRIVILEGES {
    DWORD PrivilegeCount;
    LUID_AND_ATTRIBUTES Privileges[1];
} TOKEN_PRIVILEGES, *PTOKEN_PRIVILEGES;
typedef struct _SID_AND_ATTRIBUTES {
    PSID Sid;
    DWORD Attributes;
} SID_AND_ATTRIBUTES;
typedef struct _TOKEN_USER {
    SID_AND_ATTRIBUTES User;
} TOKEN_USER, *PTOKEN_USER;
typedef enum _TOKEN_INFORMATION_CLASS { TokenUser = 1, TokenSessionId = 12 } TOKEN_INFORMATION_CLASS;
#define SE_PRIVILEGE_ENABLED 0x00000002
#define SE_SECURITY_NAME TEXT("SeSecurityPrivilege")
#define TOKEN_QUERY 0x0008
#define TOKEN_ADJUST_PRIVILEGES 0x0020
#define TOKEN_ALL_ACCESS 0xF01FF
#define SECURITY_NULL_SID_AUTHORITY \
    { 0, 0, 0, 0, 0, 0 }
#define SECURITY_WORLD_SID_AUTHORITY \
    { 0, 0, 0, 0, 0, 1 }
#define SECURITY_LOCAL_SID_AUTHORITY \
    { 0, 0, 0, 0, 0, 2 }
#define SECURITY_CREATOR_SID_AUTHORITY \
    { 0, 0, 0, 0, 0, 3 }
#define SECURITY_NON_UNIQUE_AUTHORITY \
    { 0, 0, 0, 0, 0, 4 }
#define SECURITY_NT_AUTHORITY \
    { 0, 0, 0, 0, 0, 5 }
#define SECURITY_RESOURCE_MANAGER_AUTHORITY \
    { 0, 0, 0, 0, 0, 9 }
BOOL WINAPI OpenProcessToken(HANDLE process, DWORD access, PHANDLE token);
BOOL WINAPI GetTokenInformation(HANDLE token, TOKEN_INFORMATION_CLASS what, LPVOID buffer, DWORD bytes, PDWORD needed);
BOOL WINAPI AdjustTokenPrivileges(HANDLE token, BOOL disableAll, PTOKEN_PRIVILEGES set, DWORD bytes,
                                  PTOKEN_PRIVILEGES previous, PDWORD needed);
BOOL WINAPI LookupPrivilegeValueW(LPCWSTR system, LPCWSTR name, PLUID luid);
BOOL WINAPI LookupAccountSidW(LPCWSTR system, PSID sid, LPWSTR account, LPDWORD accountUnits, LPWSTR domain,
                              LPDWORD domainUnits, PSID_NAME_USE use);
BOOL WINAPI AllocateAndInitializeSid(PSID_IDENTIFIER_AUTHORITY authority, BYTE count, DWORD s0, DWORD s1, DWORD s2,
                                     DWORD s3, DWORD s4, DWORD s5, DWORD s6, DWORD s7, PSID* sid);
PVOID WINAPI FreeSid(PSID sid);
DWORD WINAPI GetLengthSid(PSID sid);

}  // extern "C"
