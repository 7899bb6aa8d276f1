// The values of one JSON object by their dotted names: {"a":{"b":1}} and {"a.b":1} are the same.
#pragma once

#include <bit>
#include <cstdint>
#include <memory>
#include <span>
#include <string>
#include <string_view>

namespace tools::feed {

enum class JSON_KIND { NOTHING, TEXT, NUMBER, WORD, OBJECT, LIST };  // NOTHING: null; WORD: true and false

// A scalar's text: numbers and words as they stand, empty for all else. A NUL, at which a record's text would end early
// and name another account, is U+FFFD.
struct JSON_VALUE {
    std::string_view text;
    JSON_KIND kind = JSON_KIND::NOTHING;
};

// A name to be asked for, with its hash, which for a literal is made when the program is compiled.
class JSON_NAME {
public:
    constexpr JSON_NAME(const char* literal) : JSON_NAME(std::string_view(literal)) {}
    constexpr JSON_NAME(std::string_view name) : text(name) {
        // Of its length, first and last bytes: few of the names that are asked for share them.
        const size_t width = name.size() < sizeof(uint64_t) ? name.size() : sizeof(uint64_t);
        const uint64_t first = Load(name.data(), width), last = Load(name.data() + name.size() - width, width);
        hash = static_cast<size_t>((first ^ std::rotl(last, 23) ^ name.size()) * 0x9E3779B97F4A7C15);
    }

    std::string_view text;
    size_t hash = 0;  // the upper bits are the best

private:
    static constexpr uint64_t Load(const char* from, size_t bytes) {
        uint64_t value = 0;
        for (size_t i = 0; i < bytes; ++i) value |= uint64_t{static_cast<unsigned char>(from[i])} << 8 * i;
        return value;
    }
};

// Takes a line apart, all of which must be right, and holds it until the next. Of a name that stands there twice the
// last value counts. Texts and lists that it gives are gone with the next line. One thread's.
class JSON_FIELDS {
public:
    static constexpr size_t MostValues = 2000;  // in one object, the items of lists among them
    static constexpr size_t MostDepth = 64;     // objects and lists within each other

    JSON_FIELDS();
    ~JSON_FIELDS();

    // Takes one object, after a byte order mark or not. False: it is none, or too much; `reason` says which. Throws
    // only when memory runs out.
    bool Read(std::string_view line, std::string& reason);

    JSON_VALUE Value(const JSON_NAME& name) const;
    std::string_view Text(const JSON_NAME& name) const { return Value(name).text; }
    std::span<const JSON_VALUE> List(const JSON_NAME& name) const;  // its items; empty: there is no such list

    // Whether some value's name begins so.
    bool HasPrefix(std::string_view prefix) const;

private:
    class READER;
    const std::unique_ptr<READER> reader;
};

}  // namespace tools::feed
