// Writes the registry text format.
#include "win32/registry/reg_text.h"
#include "win32/text/numbers.h"
#include "win32/text/utf.h"

#include <algorithm>
#include <cstdio>

namespace win32 {

namespace {

constexpr size_t MaxHexColumns = 77;  // registry editors break their lists of bytes so that a line fits a terminal

// Whether a text value can be written between quotes and read back byte for byte.
bool IsPlainText(const REG_VALUE& value) {
    if (value.type != REG_SZ || value.data.size() < 2 || value.data.size() % 2 != 0) return false;
    const std::u16string text = BytesText(value.data);
    return (text.size() + 1) * 2 == value.data.size() && WritableName(text);
}

std::string Quoted(std::u16string_view text) {
    std::string quoted = "\"";
    for (const char c : ToUtf8(text)) {
        if (c == '\\' || c == '"') quoted += '\\';
        quoted += c;
    }
    return quoted + '"';
}

class WRITER {
public:
    std::string Run(const REG_TREE& tree) {
        out = "Windows Registry Editor Version 5.00\n";
        WriteChildren(tree.root, "");
        if (!tree.comments.empty()) out += '\n';
        WriteComments(tree.comments);
        return std::move(out);
    }

private:
    template <typename MAP, typename SEE>
    static void InFileOrder(const MAP& map, SEE see) {
        std::vector<typename MAP::const_iterator> items;
        for (auto item = map.begin(); item != map.end(); ++item) items.push_back(item);
        std::sort(items.begin(), items.end(), [](const auto& a, const auto& b) { return Order(*a) < Order(*b); });
        for (const auto& item : items) see(*item);
    }
    static size_t Order(const REG_VALUES::value_type& item) { return item.second.order; }
    static size_t Order(const decltype(REG_NODE::children)::value_type& item) { return item.second->order; }

    // The depth of the recursion is bounded by MaxKeyDepth.
    void WriteChildren(const REG_NODE& key, const std::string& path) {
        InFileOrder(key.children, [&](const auto& item) {
            const REG_NODE& child = *item.second;
            const std::string childPath = path + ToUtf8(child.name);
            const bool leaf = child.children.empty() && !path.empty();
            if (child.listed || leaf || !child.values.empty()) WriteKey(child, childPath);
            WriteChildren(child, childPath + '\\');
        });
    }

    void WriteKey(const REG_NODE& key, const std::string& path) {
        out += '\n';
        WriteComments(key.comments);
        out += '[' + path + "]\n";
        InFileOrder(key.values, [&](const auto& item) { WriteValue(item.second); });
    }

    void WriteComments(const std::vector<std::u16string>& comments) {
        for (const std::u16string& comment : comments) out += ToUtf8(comment) + '\n';
    }

    void WriteValue(const REG_VALUE& value) {
        WriteComments(value.comments);
        const size_t start = out.size();
        out += value.name.empty() ? "@" : Quoted(value.name);
        out += '=';
        if (IsPlainText(value)) {
            out += Quoted(BytesText(value.data));
        } else if (value.type == REG_DWORD && value.data.size() == 4) {
            WriteDword(value.data);
        } else {
            WriteHex(value, start);
        }
        out += '\n';
    }

    void WriteDword(const std::vector<BYTE>& data) {
        out += "dword:";
        for (const BYTE byte : {data[3], data[2], data[1], data[0]}) AppendHex(out, byte);
    }

    void WriteHex(const REG_VALUE& value, size_t lineStart) {
        char digits[16];
        std::snprintf(digits, sizeof digits, "hex(%x):", value.type);
        out += value.type == REG_BINARY ? "hex:" : digits;
        for (size_t i = 0; i < value.data.size(); ++i) {
            if (i > 0) out += ',';
            if (out.size() - lineStart >= MaxHexColumns) {
                out += "\\\n";
                lineStart = out.size();
                out += "  ";
            }
            AppendHex(out, value.data[i]);
        }
    }

    std::string out;
};

}  // namespace

std::string WriteRegText(const REG_TREE& tree) { return WRITER().Run(tree); }

}  // namespace win32
