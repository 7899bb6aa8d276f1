#include "win32/directory/ldif_file.h"

#include <openssl/evp.h>

#include <algorithm>
#include <iterator>

#include "win32/directory/directory_text.h"
#include "win32/security/sid.h"
#include "win32/text/utf.h"

namespace win32 {

namespace {

constexpr const char* Indexed[] = {"samaccountname", "userprincipalname", "objectsid"};  // in lower case

bool IsSid(std::string_view lowerName) { return lowerName == "objectsid"; }

// Bytes of a SID are compared as they are, texts without regard to letter case.
std::string IndexKey(std::string_view lowerName, std::string_view value) {
    return std::string(lowerName) + '\0' + (IsSid(lowerName) ? std::string(value) : ToUtf8(FoldName(ToUtf16(value))));
}

// The text's lines, folded ones joined and comments gone, each with the number of its first line.
class LDIF_LINES {
public:
    explicit LDIF_LINES(std::string_view text) : rest(text) { ReadPhysical(); }

    // False: the end.
    bool Next(std::string& line, size_t& number) {
        do {
            if (!hasPhysical) return false;
            line = physical;
            number = physicalNumber;
            ReadPhysical();
            while (hasPhysical && physical.starts_with(' ')) {
                line += physical.substr(1);
                ReadPhysical();
            }
        } while (line.starts_with('#'));
        return true;
    }

private:
    void ReadPhysical() {
        hasPhysical = !rest.empty();
        if (!hasPhysical) return;
        const size_t end = rest.find('\n');
        physical = rest.substr(0, end);
        if (physical.ends_with('\r')) physical.remove_suffix(1);
        rest.remove_prefix(end == rest.npos ? rest.size() : end + 1);
        ++physicalNumber;
    }

    std::string_view rest, physical;
    size_t physicalNumber = 0;
    bool hasPhysical = false;
};

// RFC 4648; nothing: it is not base64.
std::optional<std::string> FromBase64(std::string_view text) {
    const size_t padding = text.size() - std::min(text.size(), text.find_last_not_of('=') + 1);
    if (text.size() % 4 != 0 || padding > 2 || text.find('=') < text.size() - padding) return std::nullopt;
    std::string bytes(text.size() / 4 * 3, '\0');
    const int length =
        EVP_DecodeBlock(reinterpret_cast<unsigned char*>(bytes.data()),
                        reinterpret_cast<const unsigned char*>(text.data()), static_cast<int>(text.size()));
    if (length != static_cast<int>(bytes.size())) return std::nullopt;
    bytes.resize(bytes.size() - padding);
    return bytes;
}

struct LDIF_FIELD {
    std::string name, value;
};

// "name: value", "name:: base64"; false: the reason says why not.
bool ParseField(std::string_view line, LDIF_FIELD& field, std::string& reason) {
    const size_t colon = line.find(':');
    if (colon == line.npos || colon == 0) return reason = "it has no \"NAME:\"", false;
    field.name = line.substr(0, colon);
    std::string_view value = line.substr(colon + 1);
    const bool encoded = value.starts_with(':'), elsewhere = value.starts_with('<');
    if (elsewhere) return reason = "values kept in other files are not read", false;
    if (encoded) value.remove_prefix(1);
    while (value.starts_with(' ')) value.remove_prefix(1);
    if (!encoded) {
        if (value.find('\0') != value.npos) return reason = "it holds a NUL", false;
        field.value = value;
        return true;
    }
    while (value.ends_with(' ')) value.remove_suffix(1);
    std::optional<std::string> bytes = FromBase64(value);
    if (!bytes) return reason = "its value is not base64", false;
    field.value = std::move(*bytes);
    return true;
}

// Stands after the name of an attribute of which parts are missing.
constexpr std::string_view CutOffMark = ";range=";

struct LIST_PART {
    ATTRIBUTE_RANGE range;
    std::vector<std::string> values;
};

// The values of the parts, which are in order; nothing: some are missing.
std::optional<std::vector<std::string>> Joined(std::vector<LIST_PART>& parts) {
    std::vector<std::string> values;
    std::optional<unsigned long> next = 0;
    for (LIST_PART& part : parts) {
        if (next != part.range.first) return std::nullopt;
        std::move(part.values.begin(), part.values.end(), std::back_inserter(values));
        next = part.range.last ? std::optional(*part.range.last + 1) : std::nullopt;
    }
    return next ? std::nullopt : std::optional(std::move(values));
}

// Puts the parts of long lists together ("memberOf;range=0-1499", "memberOf;range=1500-*").
void JoinParts(DIRECTORY_ENTRY& entry) {
    std::map<std::string, std::vector<LIST_PART>> lists;  // by the attribute in lower case
    for (auto& [name, values] : entry.attributes)
        if (const std::optional<ATTRIBUTE_RANGE> range = ParseRange(name))
            lists[LowerName(name.substr(0, name.find(';')))].push_back({*range, std::move(values)});
    std::erase_if(entry.attributes,
                  [&](const auto& one) { return ParseRange(one.first) || lists.contains(LowerName(one.first)); });
    for (auto& [attribute, parts] : lists) {
        std::sort(parts.begin(), parts.end(),
                  [](const LIST_PART& a, const LIST_PART& b) { return a.range.first < b.range.first; });
        if (std::optional<std::vector<std::string>> values = Joined(parts))
            entry.attributes.emplace_back(attribute, std::move(*values));
        else
            entry.attributes.emplace_back(attribute + std::string(CutOffMark), std::vector<std::string>());
    }
}

// Makes entries of the fields between empty lines.
class LDIF_READER {
public:
    bool IsOpen() const { return open; }  // fields have come since the last empty line

    // An entry is complete at an empty line and at the end.
    bool TakeField(LDIF_FIELD field, std::string& reason) {
        const std::string name = LowerName(field.name.substr(0, field.name.find(';')));
        if (!open) {
            open = true;
            isEntry = name == "dn";
            if (isEntry)
                entry.dn = std::move(field.value);
            else if (name != "version" && name != "search" && name != "result" && name != "ref")
                return reason = "an entry must begin with \"dn:\"", false;
            else if (name == "version")
                open = false;  // the first entry may follow at once
            return true;
        }
        if (!isEntry) return true;  // of ldapsearch's closing lines, or of a referral
        if (name == "dn") return reason = "an empty line is missing before it", false;
        if (name == "changetype") {
            if (LowerName(field.value) == "add") return true;
            return reason = "only entries are read, no changes", false;
        }
        if (IsSid(name) && !SID_VALUE::FromBytes(field.value)) {
            const std::optional<SID_VALUE> sid = SID_VALUE::FromText(field.value);
            if (!sid) return reason = "it is not a SID", false;
            field.value = sid->Bytes();
        }
        if (ParseRange(field.name)) {  // a part keeps its name until the entry is complete
            hasParts = true;
            Values(LowerName(field.name), field.name).push_back(std::move(field.value));
        } else {
            Values(name, field.name.substr(0, field.name.find(';'))).push_back(std::move(field.value));
        }
        return true;
    }

    // The entry that is now complete, if there is one.
    std::optional<DIRECTORY_ENTRY> Finish() {
        const bool complete = open && isEntry;
        open = false;
        if (!complete) return std::nullopt;
        positions.clear();
        if (hasParts) JoinParts(entry);
        hasParts = false;
        return std::exchange(entry, {});
    }

private:
    std::vector<std::string>& Values(const std::string& lowerName, const std::string& name) {
        const auto [position, isNew] = positions.try_emplace(lowerName, entry.attributes.size());
        if (isNew) entry.attributes.emplace_back(name, std::vector<std::string>());
        return entry.attributes[position->second].second;
    }

    bool open = false, isEntry = false, hasParts = false;
    DIRECTORY_ENTRY entry;
    std::unordered_map<std::string, size_t> positions;  // of the entry's attributes, by their names in lower case
};

// ldifde writes UTF-16 when asked to, with a byte order mark.
std::string AsUtf8(std::string_view text) {
    if (text.starts_with("\xEF\xBB\xBF")) text.remove_prefix(3);
    if (!text.starts_with("\xFF\xFE")) return std::string(text);
    std::u16string wide;
    for (size_t i = 2; i + 1 < text.size(); i += 2)
        wide += static_cast<char16_t>(static_cast<BYTE>(text[i]) | static_cast<BYTE>(text[i + 1]) << 8);
    return ToUtf8(wide);
}

}  // namespace

bool IsCutOff(const DIRECTORY_ENTRY& entry, std::string_view attribute) {
    return entry.Values(std::string(attribute) + std::string(CutOffMark)) != nullptr;
}

bool LDIF_DATA::Add(DIRECTORY_ENTRY entry) {
    auto components = SplitDn(entry.dn);
    if (!components || components->empty()) return false;
    if (!byDn.emplace(std::move(*components), entries.size()).second) return false;
    for (const char* name : Indexed)
        if (const std::vector<std::string>* values = entry.Values(name))
            for (const std::string& value : *values) byValue.emplace(IndexKey(name, value), entries.size());
    if (!entry.First("nCName").empty() && !entry.First("nETBIOSName").empty()) domains.emplace_back(entry);
    entries.push_back(std::move(entry));
    return true;
}

std::optional<LDIF_DATA> LDIF_DATA::Parse(std::string_view text, LDIF_ERROR& error) {
    const std::string utf8 = AsUtf8(text);
    LDIF_LINES lines(utf8);
    LDIF_READER reader;
    LDIF_DATA data;
    size_t begin = 0;
    const auto finish = [&] {
        std::optional<DIRECTORY_ENTRY> entry = reader.Finish();
        if (!entry || data.Add(std::move(*entry))) return true;
        error = {begin, "its DN is not one, or stands in the file twice"};
        return false;
    };
    std::string line;
    for (size_t number = 0; lines.Next(line, number);) {
        if (line.empty()) {
            if (!finish()) return std::nullopt;
            continue;
        }
        if (!reader.IsOpen()) begin = number;
        LDIF_FIELD field;
        std::string reason;
        if (!ParseField(line, field, reason) || !reader.TakeField(std::move(field), reason)) {
            error = {number, reason};
            return std::nullopt;
        }
    }
    if (!finish()) return std::nullopt;
    return data;
}

const DIRECTORY_ENTRY* LDIF_DATA::AtDn(const std::vector<std::string>& components) const {
    const auto found = byDn.find(components);
    return found != byDn.end() ? &entries[found->second] : nullptr;
}

std::vector<const DIRECTORY_ENTRY*> LDIF_DATA::WithValue(std::string_view attribute, std::string_view value) const {
    std::vector<const DIRECTORY_ENTRY*> found;
    const auto [begin, end] = byValue.equal_range(IndexKey(LowerName(attribute), value));
    for (auto i = begin; i != end; ++i) found.push_back(&entries[i->second]);
    return found;
}

}  // namespace win32
