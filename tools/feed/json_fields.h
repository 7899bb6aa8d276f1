// The values of one JSON object by their dotted names: {"a":{"b":1}} and {"a.b":1} are the same.
#pragma once

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

    JSON_VALUE Value(std::string_view name) const;
    std::string_view Text(std::string_view name) const { return Value(name).text; }
    std::span<const JSON_VALUE> List(std::string_view name) const;  // its items; empty: there is no such list

    // Whether some value's name begins so.
    bool HasPrefix(std::string_view prefix) const;

private:
    class READER;
    const std::unique_ptr<READER> reader;
};

}  // namespace tools::feed
