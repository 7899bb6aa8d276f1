#include "tools/keldwick-server/request.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <type_traits>

#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr uint16_t Format = 3;
constexpr uint16_t RequestCode = 0x0010;
constexpr uint16_t AnswerCode = 0x8010;
constexpr uint32_t MaskAlways = 0x0E06;
constexpr uint32_t MaskUser = 0x01C0;
constexpr uint32_t MaskComputer = 0x0038;
constexpr uint8_t Constants[] = {0x02, 0x00, 0x00, 0x00, 0x01};
constexpr uint8_t VersionTag = 0x13;

constexpr size_t AfterBlock = 3;  // at least so many bytes follow a block: group count and report kind

bool IsKind(uint8_t byte) {
    return byte == static_cast<uint8_t>(REQUEST::KIND::Logon) || byte == static_cast<uint8_t>(REQUEST::KIND::Logoff) ||
           byte == static_cast<uint8_t>(REQUEST::KIND::Heartbeat);
}

std::string Hex(uint32_t value, int digits) {
    char text[16];
    std::snprintf(text, sizeof(text), "0x%0*X", digits, value);
    return text;
}

// Walks over the fields of one request. Once it has run out of bytes or met a wrong one, it stays so.
class PARSER {
public:
    PARSER(std::span<const uint8_t> input, REQUEST& target, std::vector<FIELD>* noted)
        : bytes(input), request(target), fields(noted) {}

    PARSED Parse() {
        if (Header() && Origin() && Computer() && User() && Groups() && Kind()) return PARSED::Whole;
        if (wrong.empty() && wanted > MaxRequestBytes) wrong = "longer than any request";
        return wrong.empty() ? PARSED::Incomplete : PARSED::Malformed;
    }

    size_t Wanted() const { return wanted; }
    const std::string& Wrong() const { return wrong; }

private:
    bool Refuse(const char* what) {
        wrong = what;
        return false;
    }

    // Whether that many bytes are there; more: how many are known to follow them.
    bool Has(size_t count, size_t more = 0) {
        if (bytes.size() - at >= count) return true;
        wanted = at + count + more;
        return false;
    }

    uint8_t Byte() { return bytes[at++]; }
    uint16_t Word() {
        const uint16_t high = Byte();
        return static_cast<uint16_t>(high << 8 | Byte());
    }
    uint32_t Long() {
        const uint32_t high = Word();
        return high << 16 | Word();
    }

    // The bytes just read are the field of that name.
    template <typename VALUE>
    void Note(const char* name, size_t size, const VALUE& value) {
        if (fields == nullptr || fields->size() >= MaxFields) return;
        std::string text;
        if constexpr (std::is_same_v<VALUE, std::u16string>)
            text = win32::ToUtf8(value);
        else if constexpr (std::is_integral_v<VALUE>)
            text = std::to_string(value);
        else if constexpr (std::is_invocable_v<VALUE>)
            text = value();
        else
            text = value;
        fields->push_back({name, at - size, size, std::move(text)});
    }

    bool Header() {
        if (!Has(2)) return false;
        stated = Word();
        Note("length", 2, stated);
        if (!Has(12)) return false;
        const uint16_t format = Word();
        Note("format", 2, format);
        if (format != Format) return Refuse("the format is not 3");
        const uint16_t code = Word();
        Note("message code", 2, [&] { return Hex(code, 4); });
        if (code != RequestCode) return Refuse("the message code is not 0x0010");
        request.id = Long();
        Note("request ID", 4, request.id);
        mask = Long();
        Note("field mask", 4, [&] { return Hex(mask, 8); });
        const bool whole = (mask & MaskUser) % MaskUser == 0 && (mask & MaskComputer) % MaskComputer == 0;
        if ((mask & ~(MaskUser | MaskComputer)) != MaskAlways || !whole) return Refuse("the field mask is unknown");
        return true;
    }

    bool Origin() {
        if (!Has(sizeof(Constants) + 1)) return false;
        at += sizeof(Constants);
        Note("constants", sizeof(Constants), "");
        if (std::memcmp(&bytes[at - sizeof(Constants)], Constants, sizeof(Constants)) != 0)
            return Refuse("the constants differ");
        const uint8_t version = Byte();
        Note("address version", 1, version);
        if (version != 0 && version != 4 && version != 6) return Refuse("the address version is unknown");
        const size_t size = version == 4 ? 4 : version == 6 ? 16 : 0;
        constexpr size_t versionBytes = 7;  // tag, agent version, OS code, major, minor
        if (!Has(size + versionBytes)) return false;
        char text[INET6_ADDRSTRLEN] = "";
        if (size != 0) inet_ntop(version == 4 ? AF_INET : AF_INET6, &bytes[at], text, sizeof(text));
        request.address = text;
        at += size;
        if (size != 0) Note("address", size, request.address);
        const uint8_t tag = Byte();
        Note("constant", 1, tag);
        if (tag != VersionTag) return Refuse("the agent version is missing");
        for (uint8_t& part : request.agentVersion) part = Byte();
        Note("agent version", 3, [&] {
            const auto& part = request.agentVersion;
            return std::to_string(part[0]) + '.' + std::to_string(part[1]) + '.' + std::to_string(part[2]);
        });
        request.osCode = Byte();
        Note("OS code", 1, request.osCode);
        request.osMajor = Byte();
        request.osMinor = Byte();
        Note("OS version", 2, [&] { return std::to_string(request.osMajor) + '.' + std::to_string(request.osMinor); });
        return true;
    }

    bool Text(const char* field, std::u16string& text, size_t more) {
        if (!Has(2, more)) return false;
        const size_t units = Word();
        if (!Has(2 * units, more)) return false;
        text.resize(units);
        for (char16_t& unit : text) {
            unit = static_cast<char16_t>(bytes[at] | bytes[at + 1] << 8);
            at += 2;
        }
        Note(field, 2 + 2 * units, text);
        return true;
    }

    bool Computer() {
        return (mask & MaskComputer) == 0 || (Text("computer", request.computer, AfterBlock + 4) &&
                                              Text("computer DN", request.computerDn, AfterBlock + 2) &&
                                              Text("computer OU", request.computerOu, AfterBlock));
    }

    bool User() {
        return (mask & MaskUser) == 0 ||
               (Text("user", request.user, AfterBlock + 4) && Text("user DN", request.userDn, AfterBlock + 2) &&
                Text("user OU", request.userOu, AfterBlock));
    }

    bool Groups() {
        if (!Has(2, 1)) return false;
        request.groupsStated = Word();
        Note("group count", 2, request.groupsStated);
        if (request.groupsStated == 0) return true;
        if (!Has(2)) return false;
        const uint8_t separator = Byte();
        Note("constant", 1, separator);
        if (separator != 0) return Refuse("the groups' first byte is not 0");
        if (IsKind(bytes[at]) && static_cast<uint16_t>(at + 1) == stated) return true;  // counted, but not sent
        for (size_t left = request.groupsStated; left > 0; --left) {
            GROUP& group = request.groups.emplace_back();
            const size_t others = 4 * (left - 1) + 1;
            if (!Text("group", group.domain, others + 2) || !Text("group DN", group.dn, others)) return false;
            if (at > MaxRequestBytes) return Refuse("longer than any request");
        }
        return true;
    }

    bool Kind() {
        if (!Has(1)) return false;
        const uint8_t kind = Byte();
        Note("report kind", 1,
             [&] { return Hex(kind, 2) + (IsKind(kind) ? std::string(" ") + KindName(REQUEST::KIND{kind}) : ""); });
        if (!IsKind(kind)) return Refuse("the report kind is unknown");
        if (static_cast<uint16_t>(at) != stated) return Refuse("the stated length is not that of the fields");
        request.kind = static_cast<REQUEST::KIND>(kind);
        request.length = at;
        return true;
    }

    const std::span<const uint8_t> bytes;
    REQUEST& request;
    std::vector<FIELD>* const fields;
    size_t at = 0;
    size_t wanted = 0;
    uint16_t stated = 0;
    uint32_t mask = 0;
    std::string wrong;
};

void AppendBigEndian(uint32_t value, int size, std::vector<uint8_t>& bytes) {
    for (int shift = 8 * (size - 1); shift >= 0; shift -= 8) bytes.push_back(static_cast<uint8_t>(value >> shift));
}

}  // namespace

const char* KindName(REQUEST::KIND kind) {
    switch (kind) {
        case REQUEST::KIND::Logon:
            return "logon";
        case REQUEST::KIND::Heartbeat:
            return "heartbeat";
        case REQUEST::KIND::Logoff:
            break;
    }
    return "logoff";
}

PARSED ParseRequest(std::span<const uint8_t> bytes, REQUEST& request, size_t& wanted, std::string& reason,
                    std::vector<FIELD>* fields) {
    request = {};
    PARSER parser(bytes, request, fields);
    const PARSED result = parser.Parse();
    wanted = parser.Wanted();
    reason = parser.Wrong();
    return result;
}

void REQUEST_READER::Append(std::span<const uint8_t> bytes) {
    if (start != 0 && start == held.size()) {
        held.clear();
        start = 0;
    }
    held.insert(held.end(), bytes.begin(), bytes.end());
}

PARSED REQUEST_READER::Next(REQUEST& request, std::vector<uint8_t>* bytes) {
    if (Held() < std::max<size_t>(wanted, 1)) {
        if (start != 0) {  // only the beginning of a request is left: it moves to the front
            held.erase(held.begin(), held.begin() + static_cast<std::ptrdiff_t>(start));
            start = 0;
        }
        return PARSED::Incomplete;
    }
    const PARSED result = ParseRequest(std::span(held).subspan(start), request, wanted, reason);
    if (result == PARSED::Incomplete) return Next(request, bytes);
    if (bytes != nullptr && result != PARSED::Incomplete) {
        const auto first = held.begin() + static_cast<std::ptrdiff_t>(start);
        bytes->assign(first,
                      result == PARSED::Whole ? first + static_cast<std::ptrdiff_t>(request.length) : held.end());
    }
    if (result == PARSED::Whole) {
        start += request.length;
        wanted = 0;
        constexpr size_t worthKeeping = 64 * 1024;
        if (start == held.size() && held.capacity() > worthKeeping) {
            held = {};
            start = 0;
        }
    }
    return result;
}

void AppendAnswer(uint32_t id, uint32_t status, std::vector<uint8_t>& bytes) {
    AppendBigEndian(AnswerBytes, 2, bytes);
    AppendBigEndian(Format, 2, bytes);
    AppendBigEndian(AnswerCode, 2, bytes);
    AppendBigEndian(id, 4, bytes);
    AppendBigEndian(status, 4, bytes);
}

}  // namespace tools
