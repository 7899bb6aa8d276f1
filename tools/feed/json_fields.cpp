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
constexpr size_t Slots = 4096;       // well above the most values

std::string_view Trimmed(std::string_view token) {
    while (!token.empty() &&
           (token.back() == ' ' || token.back() == '\t' || token.back() == '\r' || token.back() == '\n'))
        token.remove_suffix(1);
    return token;
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
//
// Most lines of a file have the same names in the same order. So the entries of a line stay, and the next line takes
// them over one after another for as long as its names are theirs: those are neither put together nor looked up again.
class JSON_FIELDS::READER {
public:
    bool Read(std::string_view line, std::string& reason);

    struct ENTRY {
        size_t nameAt, nameBytes;  // in `names`
        size_t parent;             // the object that it is a member of: an entry's number, or Whole
        bool isPlain;              // its own name has neither quote nor back slash
        JSON_VALUE value;
        size_t firstItem = 0, items = 0;
    };
    const ENTRY* Find(const JSON_NAME& name) const;
    std::span<const JSON_VALUE> Items(const ENTRY& entry) const {
        return {items.data() + entry.firstItem, entry.items};
    }
    std::string_view Name(const ENTRY& entry) const { return {names.data() + entry.nameAt, entry.nameBytes}; }

    std::vector<ENTRY> entries;  // while a line is read, at their end those of the line before

private:
    enum FAULT { NONE, NO_OBJECT, TOO_MANY, TOO_DEEP };
    struct SLOT {  // small: all of them should stay near the processor
        uint16_t turn = 0, entry = 0;
    };
    static constexpr int HashShift = 64 - std::countr_zero(Slots);
    static_assert(MostValues < Slots && MostValues <= UINT16_MAX);
    // Instead of an entry's number: of the whole line; of what has no entry, since its name is too long or too deep.
    static constexpr size_t Whole = SIZE_MAX, Unnamed = SIZE_MAX - 1;

    FAULT ReadAll(std::string_view line);
    void KeepEntries(size_t count);
    FAULT ReadObject(ondemand::object object, size_t depth, size_t self);
    FAULT ReadList(ondemand::array array, size_t depth, ENTRY* entry);
    FAULT ReadChild(ondemand::value value, char first, size_t depth, ENTRY* entry, size_t self);
    FAULT ReadScalar(ondemand::value& value, std::string_view token, JSON_VALUE& read);
    FAULT ReadName(ondemand::field& field, std::string_view& name) const;
    bool IsNext(const char* name, size_t parent) const;
    size_t SlotOf(const JSON_NAME& name) const;
    size_t PrefixBytes(size_t parent) const { return parent == Whole ? 0 : entries[parent].nameBytes + 1; }
    size_t Enter(std::string_view name, size_t parent);

    ondemand::parser parser;
    std::string padded;  // the line, and what the parser may read beyond it
    std::string names;
    size_t taken = 0;  // entries that this line has so far, the first ones
    std::vector<JSON_VALUE> items;
    std::deque<std::string> replaced;  // texts that held a NUL
    std::vector<SLOT> slots = std::vector<SLOT>(Slots);
    uint16_t turn = 1;     // of the slots: those of an earlier turn are free
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
    KeepEntries(fault == NONE ? taken : 0);
    return fault == NONE;
}

// Drops all entries but the first ones.
void JSON_FIELDS::READER::KeepEntries(size_t count) {
    if (count == entries.size()) return;
    names.resize(entries[count].nameAt);
    entries.resize(count);
    if (++turn == 0) slots.assign(Slots, {}), ++turn;
    for (size_t i = 0; i < count; ++i) slots[SlotOf(Name(entries[i]))] = {turn, static_cast<uint16_t>(i)};
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadAll(std::string_view line) {
    taken = values = 0;
    items.clear();
    replaced.clear();
    padded.resize(line.size() + simdjson::SIMDJSON_PADDING);
    std::memcpy(padded.data(), line.data(), line.size());
    std::memset(padded.data() + line.size(), ' ', simdjson::SIMDJSON_PADDING);
    escapes = line.find('\\') != std::string_view::npos;
    ondemand::document document;
    ondemand::object object;
    const auto error = parser.iterate(padded.data(), line.size(), padded.size()).get(document);
    if (error == simdjson::MEMALLOC) throw std::bad_alloc();
    if (error != simdjson::SUCCESS || document.get_object().get(object) != simdjson::SUCCESS) return NO_OBJECT;
    const FAULT fault = ReadObject(object, 1, Whole);
    return fault == NONE && document.current_location().error() != simdjson::OUT_OF_BOUNDS ? NO_OBJECT : fault;
}

// `self`: the object's entry, by its number.
JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadObject(ondemand::object object, size_t depth, size_t self) {
    for (auto each : object) {
        if (each.error() != simdjson::SUCCESS) return NO_OBJECT;
        ondemand::field&& field = std::move(each).value_unsafe();  // not copied: it was written a moment ago
        std::string_view name;
        const bool isNext = IsNext(field.key().raw(), self);
        if (!isNext && ReadName(field, name) != NONE) return NO_OBJECT;
        if (++values > MostValues) return TOO_MANY;
        const std::string_view token = field.value().raw_json_token();
        if (token.empty()) return NO_OBJECT;
        const size_t number = isNext ? taken++ : Enter(name, self);
        ENTRY* const entry = number != Unnamed ? &entries[number] : nullptr;
        if (entry != nullptr) entry->items = 0;
        const bool isChild = token[0] == '{' || token[0] == '[';
        JSON_VALUE unnamed;
        const FAULT fault =
            isChild ? ReadChild(field.value(), token[0], depth, entry, depth <= MostNamed ? number : Unnamed)
                    : ReadScalar(field.value(), token, entry != nullptr ? entry->value : unnamed);
        if (fault != NONE) return fault;
    }
    return NONE;
}

// An object or a list. What the entry points at may move as soon as a value is entered.
JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadChild(ondemand::value value, char first, size_t depth, ENTRY* entry,
                                                          size_t self) {
    if (depth >= MostDepth) return TOO_DEEP;
    if (first == '{') {
        if (entry != nullptr) entry->value = {{}, JSON_KIND::OBJECT};
        ondemand::object object;
        return value.get_object().get(object) == simdjson::SUCCESS ? ReadObject(object, depth + 1, self) : NO_OBJECT;
    }
    ondemand::array array;
    return value.get_array().get(array) == simdjson::SUCCESS ? ReadList(array, depth + 1, entry) : NO_OBJECT;
}

JSON_FIELDS::READER::FAULT JSON_FIELDS::READER::ReadList(ondemand::array array, size_t depth, ENTRY* entry) {
    if (entry != nullptr) {
        entry->value = {{}, JSON_KIND::LIST};
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
            isChild ? ReadChild(value, token[0], depth, nullptr, Unnamed) : ReadScalar(value, token, item);
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

// Whether the member of that object whose name begins there is the next one of the line before. A plain name stands in
// a line as it is, up to the next quote; one with a quote might be taken for a name, its colon and what follows.
bool JSON_FIELDS::READER::IsNext(const char* name, size_t parent) const {
    if (taken == entries.size() || entries[taken].parent != parent || !entries[taken].isPlain) return false;
    const std::string_view known = Name(entries[taken]).substr(PrefixBytes(parent));
    const size_t left = static_cast<size_t>(padded.data() + padded.size() - name);
    return known.size() < left && name[known.size()] == '"' && std::memcmp(name, known.data(), known.size()) == 0;
}

// The slot of that name, or the free one that it may take.
size_t JSON_FIELDS::READER::SlotOf(const JSON_NAME& name) const {
    size_t at = name.hash >> HashShift;
    while (slots[at].turn == turn && Name(entries[slots[at].entry]) != name.text) at = (at + 1) % Slots;
    return at;
}

// The entry of that member of the object, an earlier one of the line if it has the same name. Unnamed: it has none.
size_t JSON_FIELDS::READER::Enter(std::string_view name, size_t parent) {
    if (parent == Unnamed || PrefixBytes(parent) + name.size() > LongestName) return Unnamed;
    KeepEntries(taken);
    const size_t nameAt = names.size();
    if (parent != Whole) names.append(names, entries[parent].nameAt, entries[parent].nameBytes) += '.';
    names += name;
    SLOT& slot = slots[SlotOf(std::string_view(names).substr(nameAt))];
    if (slot.turn != turn) {
        const bool isPlain = name.find_first_of("\"\\") == std::string_view::npos;
        entries.push_back({nameAt, names.size() - nameAt, parent, isPlain, {}});
        slot = {turn, static_cast<uint16_t>(taken)};
        return taken++;
    }
    names.resize(nameAt);
    return slot.entry;
}

const JSON_FIELDS::READER::ENTRY* JSON_FIELDS::READER::Find(const JSON_NAME& name) const {
    const size_t at = SlotOf(name);
    return slots[at].turn == turn ? &entries[slots[at].entry] : nullptr;
}

JSON_FIELDS::JSON_FIELDS() : reader(std::make_unique<READER>()) {}
JSON_FIELDS::~JSON_FIELDS() = default;

bool JSON_FIELDS::Read(std::string_view line, std::string& reason) { return reader->Read(line, reason); }

JSON_VALUE JSON_FIELDS::Value(const JSON_NAME& name) const {
    const READER::ENTRY* const entry = reader->Find(name);
    return entry != nullptr ? entry->value : JSON_VALUE();
}

std::span<const JSON_VALUE> JSON_FIELDS::List(const JSON_NAME& name) const {
    const READER::ENTRY* const entry = reader->Find(name);
    return entry != nullptr ? reader->Items(*entry) : std::span<const JSON_VALUE>();
}

bool JSON_FIELDS::HasPrefix(std::string_view prefix) const {
    for (const READER::ENTRY& each : reader->entries)
        if (reader->Name(each).starts_with(prefix)) return true;
    return false;
}

}  // namespace tools::feed
