// The registry in memory: keys with their values, as one file holds them. Names keep the letters they were first
// written with and are found whatever their case.
#pragma once

#include <windows.h>

#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace win32 {

// Bounds on what a file may make us hold and a caller may store. The first two and the depth are those that Microsoft
// documents for the registry, the rest keep a hostile file from costing memory without end.
constexpr size_t MaxKeyNameUnits = 255;
constexpr size_t MaxValueNameUnits = 16383;
constexpr size_t MaxKeyDepth = 512;
constexpr size_t MaxValueBytes = 1024 * 1024;
constexpr size_t MaxKeys = 100'000;    // of one file
constexpr size_t MaxValues = 250'000;  // of one file
constexpr size_t MaxFileBytes = 16 * 1024 * 1024;

struct REG_VALUE {
    std::u16string name;  // empty: the key's default value
    DWORD type = REG_NONE;
    std::vector<BYTE> data;                // as the caller gave it: a text with its terminator, little-endian
    std::vector<std::u16string> comments;  // the comment lines above it, ";" included
    size_t order = 0;                      // place in the file
};

using REG_VALUES = std::map<std::u16string, REG_VALUE>;  // by folded name

// Whether two keys hold the same values: names (case ignored), types and data.
bool SameValues(const REG_VALUES& a, const REG_VALUES& b);

struct REG_NODE {
    std::u16string name;
    REG_VALUES values;
    std::map<std::u16string, std::unique_ptr<REG_NODE>> children;  // by folded name
    std::vector<std::u16string> comments;
    size_t order = 0;
    bool listed = false;  // has a line of its own in the file, and is not only the parent of one that has
};

// A key's path below the roots, its first part one of the predefined root keys.
using REG_PATH = std::vector<std::u16string>;

// Splits "A\B\C"; doubled and trailing back slashes do not count. False: a name too long or not writable as text, too
// many levels, or (last error ERROR_BAD_PATHNAME) a leading back slash; last error set.
bool SplitKeyPath(std::u16string_view text, REG_PATH& path);

// Whether a name can stand in a file: no control characters, no unpaired surrogates.
bool WritableName(std::u16string_view name);

// No unit of a surrogate pair without the other.
bool WellFormed(std::u16string_view text);

class REG_TREE {
public:
    REG_TREE();  // only the predefined root keys

    const REG_NODE* Find(const REG_PATH& path) const;  // null: no such key

    // The key, made with its parents when missing. Null: not below a predefined root, or the bound on keys is reached.
    REG_NODE* Make(const REG_PATH& path, bool* created = nullptr);

    bool DeleteKey(const REG_PATH& path);  // with everything below; false: a root key. A missing key is no failure.

    // Sets or replaces a value; null: the bound on values is reached.
    REG_VALUE* SetValue(REG_NODE& key, std::u16string_view name, DWORD type, std::vector<BYTE> data);
    bool DeleteValue(REG_NODE& key, std::u16string_view name);  // false: it was not there

    bool HoldsKeysOf(const REG_TREE& other) const;  // whether every key of the other is here, too

    REG_NODE root;                         // its children are the predefined root keys
    std::vector<std::u16string> comments;  // those below the last key or value

private:
    size_t keys = 0, values = 0, nextOrder = 1;
};

const REG_VALUE* FindValue(const REG_NODE& key, std::u16string_view name);

// The bytes of a text with its terminator, and back: up to the first terminator, a byte left over ignored.
std::vector<BYTE> TextBytes(std::u16string_view text);
std::u16string BytesText(const std::vector<BYTE>& data);

}  // namespace win32
