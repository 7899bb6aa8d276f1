#include "protocol/identity_reports.h"

#include <atomic>
#include <cstring>
#include <span>
#include <string_view>
#include <utility>

#include "diagnostics/debug_output.h"
#include "directory/directory_binding.h"
#include "directory/dn.h"
#include "directory/groups.h"
#include "directory/name_translation.h"
#include "platform/version_numbers.h"
#include "protocol/identity_protocol.h"
#include "protocol/os_code.h"
#include "protocol/pack_buffer.h"
#include "service/settings.h"
#include "service/stop.h"
#include "service/version_banner.h"

namespace keldwick {

REPORT_COUNTS ReportCounts;

namespace {

// The request's header: length, format, message code, request ID.
constexpr DWORD HeaderLength = 10;
constexpr DWORD CodeOffset = 4;
constexpr DWORD StatusOffset = 10;  // of a response
constexpr WORD RequestFormat = 3;
constexpr WORD ResponseBit = 0x8000;  // what a response's code has more than its request's

// The field mask.
constexpr DWORD MaskAlways = 0x00000E06;
constexpr DWORD MaskUser = 0x000001C0;
constexpr DWORD MaskComputer = 0x00000038;

// Constants whose meaning only the server knows.
constexpr BYTE Constant14 = 0x02;
constexpr WORD Constant15 = 0x0000;
constexpr WORD Constant17 = 0x0001;
constexpr BYTE ConstantBehindAddress = 0x13;

constexpr BYTE GroupSeparator = 0x00;
constexpr int MaxAttempts = 3;

std::atomic<DWORD> RequestId{0};  // the last one given out

// One user or computer with what the directory knows of it.
struct PRINCIPAL {
    explicit PRINCIPAL(STRING who) : name(std::move(who)) {}

    STRING name;
    STRING dn;
    STRING ou;

    bool IsAbsent() const { return name.IsEmpty(); }
    void LookUp(const WCHAR* account, const DIRECTORY_BINDING& binding) {
        if (!Nt4NameToDn(account, dn, &binding)) dn.Clear();
        DnToOu(dn.Text(), ou);
    }
};

// The user's groups as the request carries them.
struct GROUP_FIELDS {
    DWORD count = 0;
    HEAP_BUFFER bytes;
};

PACK_ITEM TextCount(const STRING& text) {
    return PackWord(static_cast<WORD>(text.Length()), PACK_NETWORK_ORDER);  // modulo 65,536
}
PACK_ITEM TextUnits(const STRING& text) { return PackText(text.View()); }

void StoreWord(BYTE* to, WORD value) {
    to[0] = HIBYTE(value);
    to[1] = LOBYTE(value);
}
void StoreDword(BYTE* to, DWORD value) {
    StoreWord(to, HIWORD(value));
    StoreWord(to + 2, LOWORD(value));
}
DWORD LoadDword(const BYTE* from) {
    return static_cast<DWORD>(from[0]) << 24 | static_cast<DWORD>(from[1]) << 16 | static_cast<DWORD>(from[2]) << 8 |
           from[3];
}
WORD LoadLittleEndianWord(const BYTE* from) { return static_cast<WORD>(from[0] | from[1] << 8); }

void BindToDirectory(DIRECTORY_BINDING& binding) {
    STRING server;
    GetAdServer(server);
    if (!server.IsEmpty()) SetBindingServer(binding, server.Text());
}

// Whether a stop keeps the report from going out: it has cost the session its connection, and there is no other.
bool IsNeverToBeSent() {
    return CurrentSession->IsDisconnected() && WaitForSingleObject(StopEvent, 0) == WAIT_OBJECT_0;
}

// Encodes the list. Where memory runs out the groups are counted but not carried.
void EncodeGroups(const GROUP_LIST& list, HEAP_BUFFER& bytes) {
    ULONGLONG size = 0;
    for (const GROUP& group : list) size += 4ULL + group.domain.ByteLength() + group.dn.ByteLength();
    if (size > MAXDWORD || !bytes.Resize(static_cast<DWORD>(size))) return;
    BYTE* to = bytes.Data();
    const auto store = [&to](const STRING& text) {
        StoreWord(to, static_cast<WORD>(text.Length()));
        if (!text.IsEmpty()) std::memcpy(to + sizeof(WORD), text.Text(), text.ByteLength());
        to += sizeof(WORD) + text.ByteLength();
    };
    for (const GROUP& group : list) {
        store(group.domain);
        store(group.dn);
    }
}

// A walk that failed midway leaves its entries counted, without any group fields behind the count.
void CollectGroups(const STRING& user, const DIRECTORY_BINDING& binding, GROUP_FIELDS& groups) {
    GROUP_LIST list;
    if (GetGroups(user.Text(), list, &binding) && !list.IsEmpty()) EncodeGroups(list, groups.bytes);
    groups.count = list.Count();
}

void LookUpUser(PRINCIPAL& user, const DIRECTORY_BINDING& binding, GROUP_FIELDS& groups) {
    user.LookUp(user.name.Text(), binding);
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("IdentityReportLogon:\n    User DN = \"%s\",\n    User OU = \"%s\""), user.dn,
                     user.ou);
    if (CurrentSession->Selector() == TRANSPORT::PLAIN) CollectGroups(user.name, binding, groups);
}

void LookUpComputer(PRINCIPAL& computer, const DIRECTORY_BINDING& binding) {
    constexpr WCHAR computerAccountMark = 36;  // a dollar sign
    computer.LookUp(FormatString(TEXT("%s%c"), computer.name, computerAccountMark).Text(), binding);
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("IdentityReportLogon:\n    Computer DN = \"%s\",\n    Computer OU = \"%s\""),
                     computer.dn, computer.ou);
}

void Encode(IDENTITY_REQUEST& request, const IP_ADDRESS& address, const PRINCIPAL& user, const PRINCIPAL& computer,
            const GROUP_FIELDS& groups) {
    static const BYTE osCode = OsCode();
    constexpr DWORD principalItems = 7;
    constexpr DWORD groupItems = 2;
    const DWORD mask = MaskAlways | (user.IsAbsent() ? 0 : MaskUser) | (computer.IsAbsent() ? 0 : MaskComputer);
    PackBuffer(request.request, {PackSkip(HeaderLength),
                                 PackDword(mask, PACK_NETWORK_ORDER),
                                 PackByte(Constant14),
                                 PackWord(Constant15, PACK_NETWORK_ORDER),
                                 PackWord(Constant17, PACK_NETWORK_ORDER),
                                 PackPosition(request.addressPosition),
                                 PackByte(AddressVersion(address)),
                                 PackBytes(AddressBytes(address), AddressLength(address)),
                                 PackByte(ConstantBehindAddress),
                                 PackByte(VERSION_NUMBERS::Major),
                                 PackByte(VERSION_NUMBERS::Minor),
                                 PackByte(VERSION_NUMBERS::Revision),
                                 PackByte(osCode),
                                 PackByte(static_cast<BYTE>(OsVersion.dwMajorVersion)),
                                 PackByte(static_cast<BYTE>(OsVersion.dwMinorVersion)),

                                 PackSkipItems(computer.IsAbsent() ? principalItems : 0),
                                 PackPosition(request.computerPosition),
                                 TextCount(computer.name),
                                 TextUnits(computer.name),
                                 TextCount(computer.dn),
                                 TextUnits(computer.dn),
                                 TextCount(computer.ou),
                                 TextUnits(computer.ou),

                                 PackSkipItems(user.IsAbsent() ? principalItems : 0),
                                 PackPosition(request.userPosition),
                                 TextCount(user.name),
                                 TextUnits(user.name),
                                 TextCount(user.dn),
                                 TextUnits(user.dn),
                                 TextCount(user.ou),
                                 TextUnits(user.ou),

                                 PackWord(static_cast<WORD>(groups.count), PACK_NETWORK_ORDER),
                                 PackSkipItems(groups.count == 0 ? groupItems : 0),
                                 PackByte(GroupSeparator),
                                 PackBytes(groups.bytes.Data(), groups.bytes.Size()),

                                 PackPosition(request.reportKindPosition),
                                 PackByte(static_cast<BYTE>(REPORT_KIND::LOGON))});
}

void FillHeader(HEAP_BUFFER& request) {
    StoreWord(request.Data(), static_cast<WORD>(request.Size()));  // modulo 65,536
    StoreWord(request.Data() + 2, RequestFormat);
    StoreWord(request.Data() + CodeOffset, LogonRequestCode);
    StoreDword(request.Data() + IdOffset, ++RequestId);
}

// Sends the request under a new ID, reconnecting where the connection is lost. False: it could not be sent.
bool SendWithRetries(const WCHAR* operation, BYTE* request, DWORD length) {
    IDENTITY_PROTOCOL& session = *CurrentSession;
    for (int attempt = 1; attempt <= MaxAttempts; ++attempt) {
        session.ProcessEvents();
        if (session.IsDisconnected()) {
            DebugPrint(TEXT("%s: disconnect recieved"), operation);
            if (!session.PersistentConnect()) return false;
        }
        if (attempt > 1) ++ReportCounts.retried;
        StoreDword(request + IdOffset, ++RequestId);
        DebugPrintMasked(DEBUG_VERBOSE, TEXT("%s sending %lu bytes"), operation, length);
        const int result = session.Send(request, length);
        if (result == 0) return true;
        DebugPrintMasked(DEBUG_ERROR, TEXT("Unable to send %s request.\n    %s Error code = %d. Retry #%u"), operation,
                         session.LastErrorText(), result, attempt);
    }
    return false;
}

bool Exchange(const WCHAR* operation, BYTE* request, DWORD length) {
    if (!SendWithRetries(operation, request, length)) return false;
    std::span<const BYTE> response;
    if (!CurrentSession->ReceiveResponse(response)) response = {};
    DebugPrintMasked(DEBUG_VERBOSE, TEXT("%s request received %d bytes"), operation, static_cast<int>(response.size()));
    return IsAnswerTo(operation, request, response);
}

}  // namespace

bool IdentityReportLogon(IDENTITY_REQUEST& request, const IP_ADDRESS& address, const WCHAR* ipText,
                         const WCHAR* userName, const WCHAR* computerName) {
    PRINCIPAL user(TrimDomainSuffix(userName));
    PRINCIPAL computer(TrimDomainSuffix(computerName));
    request.userPosition = request.computerPosition = request.addressPosition = NoPosition;
    const auto shown = [](const PRINCIPAL& who) { return who.IsAbsent() ? TEXT("<N/A>") : who.name.Text(); };
    DebugPrint(TEXT("IdentityReportLogon:\n    User name = \"%s\",\n    Computer name = \"%s\",\n    IPv%u address = "
                    "\"%s\""),
               shown(user), shown(computer), AddressVersion(address), ipText);

    DIRECTORY_BINDING binding;
    BindToDirectory(binding);
    GROUP_FIELDS groups;
    const bool isFutile = IsNeverToBeSent();  // a directory may take its time for each record that waits in the log
    if (!isFutile && !user.IsAbsent()) LookUpUser(user, binding, groups);
    if (!isFutile && !computer.IsAbsent()) LookUpComputer(computer, binding);

    Encode(request, address, user, computer, groups);
    if (request.Length() == 0) return false;
    FillHeader(request.request);
    return SendRequest(TEXT("IdentityReportLogon"), request.request.Data(), request.Length());
}

bool IdentityReportHeartbeat(IDENTITY_REQUEST& request) {
    DebugPrint(TEXT("IdentityReportHeartbeat: Request length = %lu"), request.Length());
    request.SetReportKind(REPORT_KIND::HEARTBEAT);
    return SendRequest(TEXT("IdentityReportHeartbeat"), request.request.Data(), request.Length());
}

bool IdentityReportLogoff(IDENTITY_REQUEST& request) {
    request.SetReportKind(REPORT_KIND::LOGOFF);
    DebugPrint(TEXT("IdentityReportLogoff: NtUserName = \"%s\", IpAddress = \"%s\", Request length = %lu"),
               request.UserName(), request.AddressText(), request.Length());
    return SendRequest(TEXT("IdentityReportLogoff"), request.request.Data(), request.Length());
}

bool SendRequest(const WCHAR* operation, BYTE* request, DWORD length) {
    const bool answered = Exchange(operation, request, length);
    ++(answered ? ReportCounts.answered : ReportCounts.failed);
    return answered;
}

bool IsAnswerTo(const WCHAR* operation, const BYTE* request, std::span<const BYTE> response) {
    if (response.size() != ResponseLength) {
        DebugPrintMasked(DEBUG_ERROR, TEXT("%s request response length = %d; %lu expected"), operation,
                         static_cast<int>(response.size()), ResponseLength);
        return false;
    }
    const DWORD requestId = LoadDword(request + IdOffset);
    const DWORD responseId = LoadDword(response.data() + IdOffset);
    const WORD requestCode = LoadLittleEndianWord(request + CodeOffset);
    const WORD responseCode = LoadLittleEndianWord(response.data() + CodeOffset);
    constexpr WORD responseBitAsRead = ResponseBit >> 8;  // the codes stay in the order in which they lie in the bytes
    if (responseCode != (requestCode | responseBitAsRead) || responseId != requestId) {
        DebugPrintMasked(DEBUG_ERROR,
                         TEXT("Unexpected response for %s request: Code: request = %#x, response = %#x; ID: request = "
                              "%I32u, response = %I32u"),
                         operation, requestCode, responseCode, requestId, responseId);
        return false;
    }
    DebugPrint(TEXT("%s request status = %I32u"), operation, LoadDword(response.data() + StatusOffset));
    return true;
}

}  // namespace keldwick
