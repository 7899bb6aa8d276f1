#include "win32/registry/reg_text.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

using namespace win32;

namespace {

const std::string head = "Windows Registry Editor Version 5.00\n";
const std::string key = head + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\n";
const REG_PATH TestKey{u"HKEY_LOCAL_MACHINE", u"software", u"TEST"};

std::string Utf16(const std::string& ascii) {
    std::string bytes = "\xFF\xFE";
    for (const char c : ascii) bytes += {c, '\0'};
    return bytes;
}

std::string WithCrLf(const std::string& text) {
    std::string crlf;
    for (const char c : text) crlf += c == '\n' ? "\r\n" : std::string(1, c);
    return crlf;
}

// The value "v" of the test key as "type:hex", or the fault as "line N".
std::string ValueIn(const std::string& file) {
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> tree = ParseRegText(file, error);
    if (!tree) return "line " + std::to_string(error.line);
    const REG_NODE* const node = tree->Find(TestKey);
    const REG_VALUE* const value = node != nullptr ? FindValue(*node, u"v") : nullptr;
    if (value == nullptr) return node != nullptr ? "no value" : "no key";
    std::string text = std::to_string(value->type) + ":";
    for (const BYTE byte : value->data) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

TEST(RegText, WhatEditorsExportAndPeopleWriteIsRead) {
    const std::string plain = "\"v\"=\"a\\\\b\\\"c\"\n", plainValue = "1:61005c006200220063000000";
    const std::pair<std::string, std::string> cases[] = {
        {plainValue, WithCrLf(key + plain)},
        {plainValue, "\xEF\xBB\xBF" + key + plain},
        {plainValue, Utf16(WithCrLf(key + plain))},
        {"1:78000000", key + "\"v\"=\"x\""},  // and there the file ends
        {"1:61000a0062000000", key + "\"v\"=\"a\nb\"\n"},
        {"4:1e000000", key + "  \"V\" = DWORD:1E ; a comment\n"},
        {"3:01abff", key + "\"v\"=hex:01,AB,\\\n  ff\n"},
        {"4294967295:01", key + "\"v\"=hex(ffffffff):01\n"},
        {"3:02", key + "\"v\"=\"x\"\n\"V\"=hex:02\n"},  // the last one holds
        {"no value", key + "\"v\"=\"x\"\n\"v\"=-\n"},
        {"no key", key + "\"v\"=\"x\"\n[-HKEY_LOCAL_MACHINE\\SOFTWARE]\n"},
    };
    for (const auto& [outcome, file] : cases) EXPECT_EQ(outcome, ValueIn(file)) << file;
}

TEST(RegText, AFaultNamesItsLineAndNothingIsTaken) {
    const std::pair<size_t, std::string> cases[] = {
        {0, Utf16(head) + "x"},
        {0, key + "\"v\"=\"\xC3\"\n"},
        {0, head + std::string(MaxFileBytes, '\n')},
        {1, "[HKEY_USERS\\A]\n"},
        {2, head + "[HKEY_LOCAL_MACHINE\\A\n"},
        {2, head + "[HKLM\\A]\n"},
        {2, head + "[HKEY_USERS\\" + std::string(256, 'a') + "]\n"},
        {3, key + "\"" + std::string(16384, 'a') + "\"=\"\"\n"},
        {3, key + "\"v\"=\"" + std::string(MaxValueBytes / 2, 'x') + "\"\n"},
        {3, key + std::string("\"v\"=\"\0\"\n", 8)},
        {4, key + "\"v\"=hex:01,\\\n"},
    };
    for (const auto& [line, file] : cases)
        EXPECT_EQ("line " + std::to_string(line), ValueIn(file)) << file.substr(0, 100);
    for (const char* data : {"\"C:\\temp\"\n", "\"x\n\n\n", "dword:1", "dword:123456789\n", "hex:01,02", "hex:01,\n",
                             "hex:010\n", "qword:1\n", "\"x\" y\n"})
        EXPECT_EQ("line 3", ValueIn(key + "\"v\"=" + data)) << data;
}

TEST(RegText, EveryValueComesBackByteForByte) {
    const struct {
        const char16_t* name;
        DWORD type;
        std::vector<BYTE> data;
    } values[] = {
        {u"", REG_SZ, TextBytes(u"default")},
        {u"quotes \" and \\", REG_SZ, TextBytes(u"\"\\\t")},
        {u"empty", REG_SZ, {}},
        {u"no terminator", REG_SZ, {'a', 0}},
        {u"odd", REG_SZ, {'a', 0, 0}},
        {u"line break", REG_SZ, TextBytes(u"a\r\nb")},
        {u"unpaired surrogate", REG_SZ, TextBytes(u"a\xD800z")},
        {u"emoji \xD83D\xDE00", REG_SZ, TextBytes(u"\xD83D\xDE00")},
        {u"number", REG_DWORD, {1, 2, 3, 0xFF}},
        {u"number of five bytes", REG_DWORD, {1, 2, 3, 4, 5}},
        {u"long", REG_BINARY, std::vector<BYTE>(1000, 0xA5)},
        {u"odd type", 0xFFFFFFFF, {1}},
    };
    REG_TREE tree;
    REG_NODE& node = *tree.Make(TestKey);
    for (const auto& value : values) ASSERT_TRUE(tree.SetValue(node, value.name, value.type, value.data));
    const std::string file = WriteRegText(tree);
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> back = ParseRegText(file, error);
    ASSERT_TRUE(back) << "line " << error.line << ": " << error.reason << "\n" << file;
    ASSERT_EQ(std::size(values), back->Find(TestKey)->values.size());
    for (const auto& value : values) {
        const REG_VALUE* const found = FindValue(*back->Find(TestKey), value.name);
        EXPECT_TRUE(found && found->type == value.type && found->data == value.data) << value.type << "\n" << file;
    }
    EXPECT_EQ(file, WriteRegText(*back));
}

TEST(RegText, CommentsAndOrderSurviveAChange) {
    const std::string file = head +
                             "\n; top\n[HKEY_LOCAL_MACHINE\\Z]\n; about v\n\"z\"=\"1\"\n\"a\"=dword:00000002\n"
                             "\n; second\n[HKEY_LOCAL_MACHINE\\A]\n\n; the end\n";
    REG_TEXT_ERROR error;
    std::optional<REG_TREE> tree = ParseRegText(file, error);
    ASSERT_TRUE(tree) << error.line << error.reason;
    EXPECT_EQ(file, WriteRegText(*tree));
    tree->SetValue(*tree->Make({u"HKEY_LOCAL_MACHINE", u"z"}), u"Z", REG_SZ, TextBytes(u"3"));
    std::string changed = file;
    changed.replace(changed.find("\"1\""), 3, "\"3\"");
    EXPECT_EQ(changed, WriteRegText(*tree));
}

}  // namespace
