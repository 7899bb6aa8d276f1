#include "tools/feed/json_fields.h"

#include <simdjson.h>

#include <algorithm>
#include <bit>
#include <cstdint>
#include <cstring>
#include <deque>
#include <new>
#include <vector>

#include "tools/feed/source.h"

namespace tools::feed {
namespace {

namespace ondemand = simdjson::ondemand;

constexpr size_t MostNamed = 6;      // objects within each other whose values have names
constexpr size_t LongestName = 200;  // bytes; longer than any that is asked for
constexpr size_t Slots = 4096;       // as HashOf gives numbers; well above the most values

std::string_view Trimmed(std::string_view token) { return token.substr(0, token.find_last_not_of(" \t\r\n") + 1); }

// Of a name's length, first and last bytes: few of the names that are asked for share them.
size_t HashOf(std::string_view name) {
    constexpr size_t Width = sizeof(uint64_t);
    uint64_t first = 0, last = 0;
    if (name.size() >= Width) {  // copies of a fixed size, which take one instruction each
        std::memcpy(&first, name.data(), Width);
        std::memcpy(&last, name.data() + name.size() - Width, Width);
    } else {
        std::memcpy(&first, name.data(), name.size());
        last = first;
    }
    const uint64_t mixed = (first ^ std::rotl(last, 23) ^ name.size()) * 0x9E3779B97F4A7C15;
    return static_cast<size_t>(mixed >> 52);
}

size_t DigitsAt(std::string_view text, size_t at) {
    size_t end = at;
    while (end < text.size() && text[end] >= '0' && text[end] <= '9') ++end;
    return end - at;
}

// As JSON has numbers, of any size.
bool IsNumber(std::string_view text) {
    size_t at = text.starts_with('-') ? 1 : 0;
    const size_t whole = DigitsAt(text, at);
    if (whole == 0 || (whole > 1 && text[at] == '0')) return false;
    at += whole;
    if (at < text.size() && text[at] == '.') {
        const size_t fraction = DigitsAt(text, at + 1);
        if (fraction == 0) return false;
        at += 1 + fraction;
    }
    if (at < text.size() && (text[at] == 'e' || text[at] == 'E')) {
        ++at;
        if (at < text.size() && (text[at] == '+' || text[at] == '-')) ++at;
        const size_t exponent = DigitsAt(text, at);
        if (exponent == 0) return false;
        at += exponent;
    }
    return at == text.size();
}

}  // namespace

// The parser checks UTF-8, quotes and control characters when it begins, and what stands between values as it goes;
// each value is looked at here, since it checks none that it is not asked for.
class JSON_FIELDS::READER {
public:
    bool Read(std::string_view line, std::string& reason);

    struct ENTRY {
        size_t nameAt, nameBytes;  // in `names`
        JSON_VALUE value;
        size_t firstItem = 0, items = 0;
    };
    const ENTRY* Find(std::string_view name) const;
    std::span<const JSON_VALUE> Items(const ENTRY& entry) const {
        return {items.data() + entry.firstItem, entry.items};
    }
    std::string_view Name(const ENTRY& entry) const { return {names.data() + entry.nameAt, entry.nameBytes}; }

    std::vector<ENTRY> entries;

private:
    enum FAULT { NONE, NO_OBJECT, TOO_MANY, TOO_DEEP };
    struct SLOT {  // small: all of them should stay near the processor
        uint16_t turn = 0, entry = 0;
    };
    static_assert(MostValues < Slots && MostValues <= UINT16_MAX);

    FAULT ReadAll(std::string_view line);
    void Forget();
    FAULT ReadObject(ondemand::object object, size_t depth, bool named);
    FAULT ReadList(ondemand::array array, size_t depth, ENTRY* entry);
    FAULT ReadChild(ondemand::value value, char first, size_t depth, ENTRY* entry, bool named);
    FAULT ReadScalar(ondemand::value& value, std::string_view token, JSON_VALUE& read);
    FAULT ReadName(ondemand::field& field, std::string_view& name) const;
    size_t SlotOf(std::string_view name) const;
    ENTRY& Enter(std::string_view name);

    ondemand::parser parser;
    std::string padded;  // the line, and what the parser may read beyond it
    std::string path;    // of the object that is read, with a dot at its end
    std::string names;
    std::vector<JSON_VALUE> items;
    std::deque<std::string> replaced;  // texts that held a NUL
    std::vector<SLOT> slots = std::vector<SLOT>(Slots);
    uint16_t turn = 0;     // of the slots: those of an earlier line are free
    bool escapes = false;  // a back slash stands in the line
    size_t values = 0;
};

bool JSON_FIELDS::READER::Read(std::string_view line, std::string& reason) {
    constexpr std::string_view ByteOrderMark = "\xEF\xBB\xBF";
    if (line.starts_with(ByteOrderMark)) line.remove_prefix(ByteOrderMark.size());
    const FAULT fault = line.size() > MaxLineBytes ? NO_OBJECT : ReadAll(line);
    if (fault == NO_OBJECT) reason = "not a JSON object";
    if (fault == TOO_MANY) reason = "more than " + std::to_string(MostValues) + " values";
    if (fault == TOO_DEEP) reason = "objects or lists nested too deep";
    if (fault != NONE) Forget();
    return fault == NONE;
}

void JSON_FIELDS::READER::Forget() {
    path.clear();
    names.clear();
    items.clear();
    entries.clear();
    replaced.clear();
    values = 0;
    if (++turn == 0) slots.assign(Slots, {}), ++turn;
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadAll(std::string_view line) {
    Forget();
    padded.resize(line.size() + simdjson::SIMDJSON_PADDING);
    std::memcpy(padded.data(), line.data(), line.size());
    std::memset(padded.data() + line.size(), ' ', simdjson::SIMDJSON_PADDING);
    escapes = line.find('\\') != std::string_view::npos;
    ondemand::document document;
    ondemand::object object;
    const auto error = parser.iterate(padded.data(), line.size(), padded.size()).get(document);
    if (error == simdjson::MEMALLOC) throw std::bad_alloc();
    if (error != simdjson::SUCCESS || document.get_object().get(object) != simdjson::SUCCESS) return NO_OBJECT;
    const FAULT fault = ReadObject(object, 1, true);
    return fault == NONE && document.current_location().error() != simdjson::OUT_OF_BOUNDS ? NO_OBJECT : fault;
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadObject(ondemand::object object, size_t depth, bool named) {
    const size_t pathBytes = path.size();
    for (auto each : object) {
        std::string_view name;
        if (each.error() != simdjson::SUCCESS) return NO_OBJECT;
        ondemand::field&& field = std::move(each).value_unsafe();  // not copied: it was written a moment ago
        if (ReadName(field, name) != NONE) return NO_OBJECT;
        if (++values > MostValues) return TOO_MANY;
        const std::string_view token = field.value().raw_json_token();
        if (token.empty()) return NO_OBJECT;
        ENTRY* const entry = named && pathBytes + name.size() <= LongestName ? &Enter(name) : nullptr;
        const bool isChild = token[0] == '{' || token[0] == '[';
        const bool namesMore = entry != nullptr && token[0] == '{' && depth <= MostNamed;
        if (namesMore) path.append(name) += '.';
        JSON_VALUE unnamed;
        const FAULT fault = isChild ? ReadChild(field.value(), token[0], depth, entry, namesMore)
                                    : ReadScalar(field.value(), token, entry != nullptr ? entry->value : unnamed);
        path.resize(pathBytes);
        if (fault != NONE) return fault;
    }
    return NONE;
}

// An object or a list. What the entry points at may move as soon as a value is entered.
JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadChild(ondemand::value value, char first, size_t depth, ENTRY* entry,
                                                          bool named) {
    if (depth >= MostDepth) return TOO_DEEP;
    if (first == '{') {
        if (entry != nullptr) entry->value.kind = JSON_KIND::OBJECT;
        ondemand::object object;
        return value.get_object().get(object) == simdjson::SUCCESS ? ReadObject(object, depth + 1, named) : NO_OBJECT;
    }
    ondemand::array array;
    return value.get_array().get(array) == simdjson::SUCCESS ? ReadList(array, depth + 1, entry) : NO_OBJECT;
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadList(ondemand::array array, size_t depth, ENTRY* entry) {
    if (entry != nullptr) {
        entry->value.kind = JSON_KIND::LIST;
        entry->firstItem = items.size();
    }
    for (auto each : array) {
        ondemand::value value;
        if (std::move(each).get(value) != simdjson::SUCCESS) return NO_OBJECT;
        if (++values > MostValues) return TOO_MANY;
        const std::string_view token = value.raw_json_token();
        if (token.empty()) return NO_OBJECT;
        const bool isChild = token[0] == '{' || token[0] == '[';
        JSON_VALUE item;
        const FAULT fault =
            isChild ? ReadChild(value, token[0], depth, nullptr, false) : ReadScalar(value, token, item);
        if (fault != NONE) return fault;
        if (entry == nullptr) continue;
        items.push_back(item);
        ++entry->items;
    }
    return NONE;
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadScalar(ondemand::value& value, std::string_view token,
                                                           JSON_VALUE& read) {
    const char next = token.data()[token.size()];  // what stands after it, which the parser may skip unseen
    if (next != ',' && next != '}' && next != ']') return NO_OBJECT;
    token = Trimmed(token);
    read = {token, JSON_KIND::NUMBER};
    if (token[0] != '"') {
        if (IsNumber(token)) return NONE;
        read.kind = JSON_KIND::WORD;
        if (token == "true" || token == "false") return NONE;
        read = {};
        return token == "null" ? NONE : NO_OBJECT;
    }
    read.kind = JSON_KIND::TEXT;
    if (token.size() < 2 || token.back() != '"') return NO_OBJECT;
    read.text = token.substr(1, token.size() - 2);
    if (!escapes || read.text.find('\\') == std::string_view::npos) return NONE;  // as it stands: most texts
    if (value.get_string().get(read.text) != simdjson::SUCCESS) return NO_OBJECT;
    if (read.text.find('\0') == std::string_view::npos) return NONE;
    std::string& text = replaced.emplace_back(read.text);
    for (size_t nul = text.find('\0'); nul != std::string::npos; nul = text.find('\0', nul))
        text.replace(nul, 1, "\xEF\xBF\xBD");
    read.text = text;
    return NONE;
}

// Its quote ends it where no back slash stands before; such names go through the parser.
JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadName(ondemand::field& field, std::string_view& name) const {
    const char* const begin = field.key().raw();
    const size_t left = static_cast<size_t>(padded.data() + padded.size() - begin);
    name = std::string_view(begin, left);
    name = name.substr(0, name.find('"'));
    if (!escapes || name.find('\\') == std::string_view::npos) return NONE;
    return field.unescaped_key().get(name) == simdjson::SUCCESS ? NONE : NO_OBJECT;
}

// The slot of that name, or the free one that it may take.
size_t JSON_FIELDS::READER::SlotOf(std::string_view name) const {
    size_t at = HashOf(name);
    while (slots[at].turn == turn && Name(entries[slots[at].entry]) != name) at = (at + 1) % Slots;
    return at;
}

JSON_FIELDS::READER::ENTRY& JSON_FIELDS::READER::Enter(std::string_view name) {
    const size_t nameAt = names.size();
    names.append(path).append(name);
    const size_t at = SlotOf(std::string_view(names).substr(nameAt));
    if (slots[at].turn != turn) {
        slots[at] = {turn, static_cast<uint16_t>(entries.size())};
        return entries.emplace_back(ENTRY{nameAt, names.size() - nameAt, {}});
    }
    names.resize(nameAt);
    ENTRY& entry = entries[slots[at].entry];
    entry.value = {};
    entry.items = 0;
    return entry;
}

const JSON_FIELDS::READER::ENTRY* JSON_FIELDS::READER::Find(std::string_view name) const {
    const size_t at = SlotOf(name);
    return slots[at].turn == turn ? &entries[slots[at].entry] : nullptr;
}

JSON_FIELDS::JSON_FIELDS() : reader(std::make_unique<READER>()) {}
JSON_FIELDS::~JSON_FIELDS() = default;

bool JSON_FIELDS::Read(std::string_view line, std::string& reason) { return reader->Read(line, reason); }

JSON_VALUE JSON_FIELDS::Value(std::string_view name) const {
    const READER::ENTRY* const entry = reader->Find(name);
    return entry != nullptr ? entry->value : JSON_VALUE();
}

std::span<const JSON_VALUE> JSON_FIELDS::List(std::string_view name) const {
    const READER::ENTRY* const entry = reader->Find(name);
    return entry != nullptr ? reader->Items(*entry) : std::span<const JSON_VALUE>();
}

bool JSON_FIELDS::HasPrefix(std::string_view prefix) const {
    for (const READER::ENTRY& each : reader->entries)
        if (reader->Name(each).starts_with(prefix)) return true;
    return false;
}

}  // namespace tools::feed
