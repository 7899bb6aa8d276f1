#include "win32/registry/tree.h"

#include "win32/text/last_error.h"
#include "win32/text/utf.h"

#include <unicode/utf16.h>

#include <algorithm>
#include <utility>

namespace win32 {

namespace {

constexpr const char16_t* RootNames[] = {u"HKEY_CLASSES_ROOT", u"HKEY_CURRENT_USER", u"HKEY_LOCAL_MACHINE",
                                         u"HKEY_USERS", u"HKEY_CURRENT_CONFIG"};

bool IsControl(char16_t unit) { return unit < 0x20 || unit == 0x7F; }

size_t ValuesBelow(const REG_NODE& key) {
    size_t count = key.values.size();
    for (const auto& [name, child] : key.children) count += ValuesBelow(*child);
    return count;
}

size_t KeysBelow(const REG_NODE& key) {
    size_t count = key.children.size();
    for (const auto& [name, child] : key.children) count += KeysBelow(*child);
    return count;
}

bool HoldsKeysBelow(const REG_NODE& key, const REG_NODE& other) {
    return std::all_of(other.children.begin(), other.children.end(), [&key](const auto& child) {
        const auto own = key.children.find(child.first);
        return own != key.children.end() && HoldsKeysBelow(*own->second, *child.second);
    });
}

}  // namespace

bool SameValues(const REG_VALUES& a, const REG_VALUES& b) {
    return std::equal(a.begin(), a.end(), b.begin(), b.end(), [](const auto& one, const auto& other) {
        return one.first == other.first && one.second.type == other.second.type && one.second.data == other.second.data;
    });
}

bool WellFormed(std::u16string_view text) {
    for (size_t at = 0; at < text.size();) {
        UChar32 point = 0;
        U16_NEXT(text.data(), at, text.size(), point);
        if (U_IS_SURROGATE(point)) return false;
    }
    return true;
}

bool WritableName(std::u16string_view name) {
    return std::none_of(name.begin(), name.end(), IsControl) && WellFormed(name);
}

bool SplitKeyPath(std::u16string_view text, REG_PATH& path) {
    if (!text.empty() && text.front() == u'\\') return FailWith(ERROR_BAD_PATHNAME);
    while (!text.empty()) {
        const std::u16string_view name = text.substr(0, text.find(u'\\'));
        text.remove_prefix(std::min(name.size() + 1, text.size()));
        if (name.empty()) continue;
        if (name.size() > MaxKeyNameUnits || path.size() >= MaxKeyDepth || !WritableName(name)) {
            return FailWith(ERROR_INVALID_PARAMETER);
        }
        path.emplace_back(name);
    }
    return true;
}

REG_TREE::REG_TREE() {
    for (const char16_t* name : RootNames) {
        auto key = std::make_unique<REG_NODE>();
        key->name = name;
        key->order = nextOrder++;
        root.children.emplace(FoldName(name), std::move(key));
    }
}

const REG_NODE* REG_TREE::Find(const REG_PATH& path) const {
    const REG_NODE* key = &root;
    for (const std::u16string& name : path) {
        const auto child = key->children.find(FoldName(name));
        if (child == key->children.end()) return nullptr;
        key = child->second.get();
    }
    return key;
}

REG_NODE* REG_TREE::Make(const REG_PATH& path, bool* created) {
    if (created != nullptr) *created = false;
    REG_NODE* key = &root;
    for (const std::u16string& name : path) {
        std::u16string folded = FoldName(name);
        auto child = key->children.find(folded);
        if (child == key->children.end()) {
            if (key == &root || keys >= MaxKeys) return nullptr;
            auto made = std::make_unique<REG_NODE>();
            made->name = name;
            made->order = nextOrder++;
            child = key->children.emplace(std::move(folded), std::move(made)).first;
            ++keys;
            if (created != nullptr) *created = true;
        }
        key = child->second.get();
    }
    return key;
}

bool REG_TREE::DeleteKey(const REG_PATH& path) {
    if (path.size() < 2) return false;
    REG_NODE* parent = &root;
    for (size_t i = 0; i + 1 < path.size(); ++i) {
        const auto child = parent->children.find(FoldName(path[i]));
        if (child == parent->children.end()) return i > 0;
        parent = child->second.get();
    }
    const auto child = parent->children.find(FoldName(path.back()));
    if (child == parent->children.end()) return true;
    keys -= 1 + KeysBelow(*child->second);
    values -= ValuesBelow(*child->second);
    parent->children.erase(child);
    return true;
}

bool REG_TREE::HoldsKeysOf(const REG_TREE& other) const { return HoldsKeysBelow(root, other.root); }

REG_VALUE* REG_TREE::SetValue(REG_NODE& key, std::u16string_view name, DWORD type, std::vector<BYTE> data) {
    std::u16string folded = FoldName(name);
    auto value = key.values.find(folded);
    if (value == key.values.end()) {
        if (values >= MaxValues) return nullptr;
        value = key.values.emplace(std::move(folded), REG_VALUE{}).first;
        value->second.name = name;
        value->second.order = nextOrder++;
        ++values;
    }
    value->second.type = type;
    value->second.data = std::move(data);
    return &value->second;
}

bool REG_TREE::DeleteValue(REG_NODE& key, std::u16string_view name) {
    if (key.values.erase(FoldName(name)) == 0) return false;
    --values;
    return true;
}

const REG_VALUE* FindValue(const REG_NODE& key, std::u16string_view name) {
    const auto value = key.values.find(FoldName(name));
    return value == key.values.end() ? nullptr : &value->second;
}

std::vector<BYTE> TextBytes(std::u16string_view text) {
    std::vector<BYTE> data;
    data.reserve((text.size() + 1) * 2);
    for (const char16_t unit : text) {
        data.push_back(LOBYTE(unit));
        data.push_back(HIBYTE(unit));
    }
    data.insert(data.end(), 2, 0);
    return data;
}

std::u16string BytesText(const std::vector<BYTE>& data) {
    std::u16string text;
    for (size_t i = 0; i + 1 < data.size(); i += 2) {
        const auto unit = static_cast<char16_t>(data[i] | data[i + 1] << 8);
        if (unit == 0) break;
        text.push_back(unit);
    }
    return text;
}

}  // namespace win32
