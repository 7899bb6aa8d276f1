#include "protocol/identity_request.h"

#include <winsock2.h>

#include <cstring>

#include "platform/ip_address.h"

namespace keldwick {

namespace {

// The units of a text field lie behind its big-endian count, little-endian and at any position.
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

}  // namespace keldwick
