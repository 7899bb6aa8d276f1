#include "protocol/identity_request.h"

#include <cstring>

#include "platform/version.h"
#include "platform/version_numbers.h"
#include "protocol/pack_buffer.h"

namespace keldwick {

namespace {

// The header of a request and of a response: length, format, message code, ID. A response's status follows it.
constexpr DWORD FormatOffset = 2;
constexpr DWORD CodeOffset = 4;
constexpr DWORD IdOffset = 6;
constexpr DWORD HeaderLength = 10;
constexpr DWORD StatusOffset = 10;
constexpr WORD RequestFormat = 3;
constexpr WORD LogonRequestCode = 0x0010;
constexpr WORD ResponseBit = 0x8000;  // what a response's code has more than its request's

// The field mask.
constexpr DWORD MaskAlways = 0x00000E06;
constexpr DWORD MaskUser = 0x000001C0;
constexpr DWORD MaskComputer = 0x00000038;

// Constants whose meaning only the server knows.
constexpr BYTE Constant14 = 0x02;
constexpr WORD Constant15 = 0x0000;
constexpr WORD Constant17 = 0x0001;
constexpr BYTE ConstantAfterAddress = 0x13;

constexpr BYTE GroupSeparator = 0x00;

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

// ---- The code by which the server knows the agent's operating system ----

struct OS_VERSION {
    DWORD major, minor;
    BYTE server, workstation;  // codes; their order is the identity server's
};

constexpr OS_VERSION Versions[] = {
    {10, 0, 12, 12}, {6, 3, 10, 11}, {6, 2, 9, 8}, {6, 1, 6, 7}, {6, 0, 5, 4}, {5, 1, 1, 2},
};

constexpr DWORD ComparedParts[] = {VER_MAJORVERSION, VER_MINORVERSION, VER_SERVICEPACKMAJOR};

bool IsAtLeast(const OS_VERSION& version) {
    OSVERSIONINFOEXW wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.dwMajorVersion = version.major;
    wanted.dwMinorVersion = version.minor;
    DWORD types = 0;
    ULONGLONG conditions = 0;
    for (const DWORD part : ComparedParts) {
        types |= part;
        conditions = VerSetConditionMask(conditions, part, VER_GREATER_EQUAL);
    }
    return VerifyVersionInfoW(&wanted, types, conditions) != FALSE;
}

bool IsWorkstation() {
    OSVERSIONINFOEXW wanted{};
    wanted.dwOSVersionInfoSize = sizeof(wanted);
    wanted.wProductType = VER_NT_WORKSTATION;
    return VerifyVersionInfoW(&wanted, VER_PRODUCT_TYPE, VerSetConditionMask(0, VER_PRODUCT_TYPE, VER_EQUAL)) != FALSE;
}

// ---- Text fields ----

PACK_ITEM TextCount(const STRING& text) {
    return PackWord(static_cast<WORD>(text.Length()), PACK_NETWORK_ORDER);  // modulo 65,536
}
PACK_ITEM TextUnits(const STRING& text) { return PackText(text.View()); }

// The units lie after the count, at any position.
struct TEXT_FIELD {
    const BYTE* units = nullptr;
    DWORD count = 0;
};

TEXT_FIELD FieldAt(const HEAP_BUFFER& request, DWORD position) {
    if (position == NoPosition || request.Size() < position + sizeof(WORD)) return {};
    const BYTE* const field = request.Data() + position;
    const DWORD count = static_cast<DWORD>(field[0] << 8 | field[1]);
    if ((request.Size() - position - sizeof(WORD)) / sizeof(WCHAR) < count) return {};
    return {field + sizeof(WORD), count};
}

STRING TextAt(const HEAP_BUFFER& request, DWORD position) {
    const TEXT_FIELD field = FieldAt(request, position);
    STRING text(field.count);
    if (field.count != 0) std::memcpy(text.Buffer(), field.units, field.count * sizeof(WCHAR));
    return text;
}

constexpr DWORD LengthOfVersion(BYTE version) { return version == 4 ? 4 : version == 6 ? 16 : 0; }

}  // namespace

BYTE OsCode() {
    for (const OS_VERSION& version : Versions)
        if (IsAtLeast(version)) return IsWorkstation() ? version.workstation : version.server;
    return 0;
}

GROUP_FIELDS EncodeGroups(const GROUP_LIST& list, bool whole) {
    GROUP_FIELDS fields;
    fields.count = list.Count();
    ULONGLONG size = 0;
    for (const GROUP& group : list) size += 4ULL + group.domain.ByteLength() + group.dn.ByteLength();
    if (!whole || size > MAXDWORD || !fields.bytes.Resize(static_cast<DWORD>(size))) return fields;
    BYTE* to = fields.bytes.Data();
    const auto store = [&to](const STRING& text) {
        StoreWord(to, static_cast<WORD>(text.Length()));
        if (!text.IsEmpty()) std::memcpy(to + sizeof(WORD), text.Text(), text.ByteLength());
        to += sizeof(WORD) + text.ByteLength();
    };
    for (const GROUP& group : list) {
        store(group.domain);
        store(group.dn);
    }
    return fields;
}

bool IDENTITY_REQUEST::Encode(const IP_ADDRESS& address, const PRINCIPAL& user, const PRINCIPAL& computer,
                              const GROUP_FIELDS& groups) {
    userPosition = computerPosition = addressPosition = NoPosition;
    static const BYTE osCode = OsCode();
    constexpr DWORD principalItems = 7;
    constexpr DWORD groupItems = 2;
    const DWORD mask = MaskAlways | (user.IsAbsent() ? 0 : MaskUser) | (computer.IsAbsent() ? 0 : MaskComputer);
    if (PackBuffer(request, {PackSkip(HeaderLength),
                             PackDword(mask, PACK_NETWORK_ORDER),
                             PackByte(Constant14),
                             PackWord(Constant15, PACK_NETWORK_ORDER),
                             PackWord(Constant17, PACK_NETWORK_ORDER),
                             PackPosition(addressPosition),
                             PackByte(keldwick::AddressVersion(address)),
                             PackBytes(keldwick::AddressBytes(address), AddressLength(address)),
                             PackByte(ConstantAfterAddress),
                             PackByte(VERSION_NUMBERS::Major),
                             PackByte(VERSION_NUMBERS::Minor),
                             PackByte(VERSION_NUMBERS::Revision),
                             PackByte(osCode),
                             PackByte(static_cast<BYTE>(OsVersion.dwMajorVersion)),
                             PackByte(static_cast<BYTE>(OsVersion.dwMinorVersion)),

                             PackSkipItems(computer.IsAbsent() ? principalItems : 0),
                             PackPosition(computerPosition),
                             TextCount(computer.name),
                             TextUnits(computer.name),
                             TextCount(computer.dn),
                             TextUnits(computer.dn),
                             TextCount(computer.ou),
                             TextUnits(computer.ou),

                             PackSkipItems(user.IsAbsent() ? principalItems : 0),
                             PackPosition(userPosition),
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

                             PackPosition(reportKindPosition),
                             PackByte(static_cast<BYTE>(REPORT_KIND::LOGON))}) == nullptr)
        return false;
    StoreWord(request.Data(), static_cast<WORD>(request.Size()));  // modulo 65,536
    StoreWord(request.Data() + FormatOffset, RequestFormat);
    StoreWord(request.Data() + CodeOffset, LogonRequestCode);
    return true;
}

STRING IDENTITY_REQUEST::UserName() const { return TextAt(request, userPosition); }

STRING IDENTITY_REQUEST::ComputerName() const { return TextAt(request, computerPosition); }

bool IDENTITY_REQUEST::HasUserName(const STRING& name) const {
    const TEXT_FIELD field = FieldAt(request, userPosition);
    if (field.count == name.Length()) {
        if (field.count == 0 || std::memcmp(field.units, name.Text(), name.ByteLength()) == 0) return true;
    }
    return UserName().EqualsNoCase(name);
}

BYTE IDENTITY_REQUEST::AddressVersion() const {
    if (addressPosition == NoPosition || addressPosition >= request.Size()) return 0;
    const BYTE version = request.Data()[addressPosition];
    return request.Size() - addressPosition - 1 < LengthOfVersion(version) ? static_cast<BYTE>(0) : version;
}

const BYTE* IDENTITY_REQUEST::AddressBytes() const {
    return LengthOfVersion(AddressVersion()) != 0 ? request.Data() + addressPosition + 1 : nullptr;
}

STRING IDENTITY_REQUEST::AddressText() const {
    STRING text;
    if (AddressVersion() == 4) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        std::memcpy(&address.sin_addr, AddressBytes(), sizeof(address.sin_addr));
        AddressToText(reinterpret_cast<const SOCKADDR*>(&address), sizeof(address), text);
    } else if (AddressVersion() == 6) {
        sockaddr_in6 address{};
        address.sin6_family = AF_INET6;
        std::memcpy(&address.sin6_addr, AddressBytes(), sizeof(address.sin6_addr));
        AddressToText(reinterpret_cast<const SOCKADDR*>(&address), sizeof(address), text);
    }
    return text;
}

void IDENTITY_REQUEST::SetReportKind(REPORT_KIND kind) {
    if (reportKindPosition < request.Size()) request.Data()[reportKindPosition] = static_cast<BYTE>(kind);
}

void SetMessageId(BYTE* request, DWORD id) { StoreDword(request + IdOffset, id); }

DWORD MessageId(const BYTE* message) { return LoadDword(message + IdOffset); }

bool RESPONSE_FIELDS::IsAnswer() const {
    constexpr WORD responseBitAsRead = ResponseBit >> 8;
    return code == (requestCode | responseBitAsRead) && id == requestId;
}

RESPONSE_FIELDS ReadResponse(const BYTE* request, const BYTE* response) {
    return {LoadLittleEndianWord(request + CodeOffset), LoadLittleEndianWord(response + CodeOffset), MessageId(request),
            MessageId(response), LoadDword(response + StatusOffset)};
}

}  // namespace keldwick
