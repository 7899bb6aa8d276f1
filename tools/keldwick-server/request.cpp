#include "tools/keldwick-server/request.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstring>

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

bool IsKind(uint8_t byte) {
    return byte == static_cast<uint8_t>(REQUEST::KIND::Logon) || byte == static_cast<uint8_t>(REQUEST::KIND::Logoff) ||
           byte == static_cast<uint8_t>(REQUEST::KIND::Heartbeat);
}

// Walks over the fields of one request. Once it has run out of bytes or met a wrong one, it stays so.
class PARSER {
public:
    PARSER(std::span<const uint8_t> input, REQUEST& target) : bytes(input), request(target) {}

    PARSED Parse() {
        if (Header() && Origin() && Block(MaskComputer, request.computer, request.computerDn, request.computerOu) &&
            Block(MaskUser, request.user, request.userDn, request.userOu) && Groups() && Kind())
            return PARSED::Whole;
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

    bool Header() {
        if (!Has(2)) return false;
        stated = Word();
        if (!Has(12)) return false;
        if (Word() != Format) return Refuse("the format is not 3");
        if (Word() != RequestCode) return Refuse("the message code is not 0x0010");
        request.id = Long();
        mask = Long();
        const bool whole = (mask & MaskUser) % MaskUser == 0 && (mask & MaskComputer) % MaskComputer == 0;
        if ((mask & ~(MaskUser | MaskComputer)) != MaskAlways || !whole) return Refuse("the field mask is unknown");
        return true;
    }

    bool Origin() {
        if (!Has(sizeof(Constants) + 1)) return false;
        if (std::memcmp(&bytes[at], Constants, sizeof(Constants)) != 0) return Refuse("the constants differ");
        at += sizeof(Constants);
        const uint8_t version = Byte();
        if (version != 0 && version != 4 && version != 6) return Refuse("the address version is unknown");
        const size_t size = version == 4 ? 4 : version == 6 ? 16 : 0;
        constexpr size_t versionBytes = 7;  // tag, agent version, OS code, major, minor
        if (!Has(size + versionBytes)) return false;
        char text[INET6_ADDRSTRLEN] = "";
        if (size != 0) inet_ntop(version == 4 ? AF_INET : AF_INET6, &bytes[at], text, sizeof(text));
        request.address = text;
        at += size;
        if (Byte() != VersionTag) return Refuse("the agent version is missing");
        for (uint8_t& part : request.agentVersion) part = Byte();
        request.osCode = Byte();
        request.osMajor = Byte();
        request.osMinor = Byte();
        return true;
    }

    bool Text(std::u16string& text, size_t more) {
        if (!Has(2, more)) return false;
        const size_t units = Word();
        if (!Has(2 * units, more)) return false;
        text.resize(units);
        for (char16_t& unit : text) {
            unit = static_cast<char16_t>(bytes[at] | bytes[at + 1] << 8);
            at += 2;
        }
        return true;
    }

    bool Block(uint32_t bits, std::u16string& name, std::u16string& dn, std::u16string& ou) {
        constexpr size_t tail = 3;  // group count and report kind
        return (mask & bits) == 0 || (Text(name, tail + 4) && Text(dn, tail + 2) && Text(ou, tail));
    }

    bool Groups() {
        if (!Has(2, 1)) return false;
        request.groupsStated = Word();
        if (request.groupsStated == 0) return true;
        if (!Has(2)) return false;
        if (Byte() != 0) return Refuse("the groups' first byte is not 0");
        if (IsKind(bytes[at]) && static_cast<uint16_t>(at + 1) == stated) return true;  // counted, but not sent
        for (size_t left = request.groupsStated; left > 0; --left) {
            GROUP& group = request.groups.emplace_back();
            const size_t others = 4 * (left - 1) + 1;
            if (!Text(group.domain, others + 2) || !Text(group.dn, others)) return false;
            if (at > MaxRequestBytes) return Refuse("longer than any request");
        }
        return true;
    }

    bool Kind() {
        if (!Has(1)) return false;
        const uint8_t kind = Byte();
        if (!IsKind(kind)) return Refuse("the report kind is unknown");
        if (static_cast<uint16_t>(at) != stated) return Refuse("the stated length is not that of the fields");
        request.kind = static_cast<REQUEST::KIND>(kind);
        request.length = at;
        return true;
    }

    const std::span<const uint8_t> bytes;
    REQUEST& request;
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

PARSED ParseRequest(std::span<const uint8_t> bytes, REQUEST& request, size_t& wanted, std::string& reason) {
    request = {};
    PARSER parser(bytes, request);
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
