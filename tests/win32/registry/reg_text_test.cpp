#include "win32/registry/reg_text.h"

#include <gtest/gtest.h>

#include <iterator>
#include <string>

using namespace win32;

namespace {

const std::string Head = "Windows Registry Editor Version 5.00\n";
const std::string Key = "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Test]\n";
const REG_PATH TestKey{u"HKEY_LOCAL_MACHINE", u"software", u"TEST"};

std::string Utf16(const std::string& ascii, bool bigEndian) {
    std::string bytes = bigEndian ? "\xFE\xFF" : "\xFF\xFE";
    for (const char c : ascii) bytes += bigEndian ? std::string{'\0', c} : std::string{c, '\0'};
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
    const REG_NODE* const key = tree->Find(TestKey);
    const REG_VALUE* const value = key != nullptr ? FindValue(*key, u"v") : nullptr;
    if (value == nullptr) return key != nullptr ? "no value" : "no key";
    std::string text = std::to_string(value->type) + ":";
    for (const BYTE byte : value->data) {
        text += "0123456789abcdef"[byte >> 4];
        text += "0123456789abcdef"[byte & 15];
    }
    return text;
}

struct CASE {
    const char* name;
    std::string file;
    std::string outcome;
};

TEST(RegText, WhatEditorsExportAndPeopleWriteIsRead) {
    const std::string plain = Head + "\n" + Key + "\"v\"=\"a\\\\b\\\"c\"\n";
    const std::string plainValue = "1:61005c00620022006300" + std::string("0000");
    const CASE cases[] = {
        {"text with escapes", plain, plainValue},
        {"CR LF", WithCrLf(plain), plainValue},
        {"UTF-8 with BOM", "\xEF\xBB\xBF" + plain, plainValue},
        {"UTF-16 LE", Utf16(WithCrLf(plain), false), plainValue},
        {"UTF-16 BE", Utf16(plain, true), plainValue},
        {"text at the end of the file", Head + Key + "\"v\"=\"x\"", "1:78000000"},
        {"beyond the basic plane", Head + Key + "\"v\"=\"\xF0\x9F\x98\x80\"\n", "1:3dd800de0000"},
        {"a line break in a text", Head + Key + "\"v\"=\"a\nb\"\n", "1:61000a0062000000"},
        {"number", Head + Key + "\"V\"=dword:0000001e\n", "4:1e000000"},
        {"short number", Head + Key + "  \"v\" = DWORD:1E ; a comment\n", "4:1e000000"},
        {"binary", Head + Key + "\"v\"=hex:01,AB,\\\n  ff\n", "3:01abff"},
        {"continued before the first byte", Head + Key + "\"v\"=hex:\\\n  01\n", "3:01"},
        {"no bytes", Head + Key + "\"v\"=hex(0):\n", "0:"},
        {"64 bits", Head + Key + "\"v\"=hex(b):01,00,00,00,00,00,00,80\n", "11:0100000000000080"},
        {"unknown type", Head + Key + "\"v\"=hex(ffffffff):01\n", "4294967295:01"},
        {"the last one holds", Head + Key + "\"v\"=\"x\"\n\"V\"=hex:02\n", "3:02"},
        {"value deleted", Head + Key + "\"v\"=\"x\"\n\"v\"=-\n", "no value"},
        {"key deleted", Head + Key + "\"v\"=\"x\"\n[-HKEY_LOCAL_MACHINE\\SOFTWARE]\n", "no key"},
        {"comments and blank lines", Head + ";c\n" + Key + "\n; \"v\"=\"no\"\n\"v\"=hex:01\n", "3:01"},
        {"a bracket in a key's name", Head + "[HKEY_LOCAL_MACHINE\\SOFTWARE\\TEST\\a]b]\n", "no value"},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.outcome, ValueIn(c.file));
    }
}

TEST(RegText, AFaultNamesItsLineAndNothingIsTaken) {
    std::string deep = "[HKEY_LOCAL_MACHINE";
    for (int i = 0; i < 600; ++i) deep += "\\a";
    const CASE cases[] = {
        {"empty", "", "line 0"},
        {"no header", Key, "line 1"},
        {"older header", "REGEDIT4\n" + Key, "line 1"},
        {"UTF-16 cut within a unit", Utf16(Head, false) + "x", "line 0"},
        {"malformed UTF-8", Head + Key + "\"v\"=\"\xC3\"\n", "line 0"},
        {"NUL", Head + Key + std::string("\"v\"=\"\0\"\n", 8), "line 3"},
        {"value outside a key", Head + "\"v\"=\"x\"\n", "line 2"},
        {"no closing bracket", Head + "[HKEY_LOCAL_MACHINE\\A\n", "line 2"},
        {"behind the bracket", Head + "[HKEY_LOCAL_MACHINE\\A] x\n", "line 2"},
        {"not a root key", Head + "[HKLM\\A]\n", "line 2"},
        {"a root key deleted", Head + "[-HKEY_USERS]\n", "line 2"},
        {"too deep", Head + deep + "]\n", "line 2"},
        {"key name too long", Head + "[HKEY_USERS\\" + std::string(256, 'a') + "]\n", "line 2"},
        {"value name too long", Head + Key + "\"" + std::string(16384, 'a') + "\"=\"\"\n", "line 3"},
        {"single back slash", Head + Key + "\"v\"=\"C:\\temp\"\n", "line 3"},
        {"no closing quote", Head + Key + "\"v\"=\"x\n\n\n", "line 3"},
        {"cut in a short number", Head + Key + "\"v\"=dword:1", "line 3"},
        {"nine digits", Head + Key + "\"v\"=dword:123456789\n", "line 3"},
        {"cut in a list of bytes", Head + Key + "\"v\"=hex:01,02", "line 3"},
        {"cut behind a continuation", Head + Key + "\"v\"=hex:01,\\\n", "line 4"},
        {"byte missing", Head + Key + "\"v\"=hex:01,\n", "line 3"},
        {"bytes not apart", Head + Key + "\"v\"=hex:010\n", "line 3"},
        {"unknown data", Head + Key + "\"v\"=qword:1\n", "line 3"},
        {"behind the value", Head + Key + "\"v\"=\"x\" y\n", "line 3"},
        {"after a text of three lines", Head + Key + "\"w\"=\"a\nb\nc\"\n?\n", "line 6"},
        {"value beyond the bound", Head + Key + "\"v\"=\"" + std::string(MaxValueBytes / 2, 'x') + "\"\n", "line 3"},
        {"file beyond the bound", Head + std::string(MaxFileBytes, '\n'), "line 0"},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        EXPECT_EQ(c.outcome, ValueIn(c.file));
    }
}

TEST(RegText, KeysAndValuesWithoutEndAreRefused) {
    std::string keys = Head, values = Head + Key;
    for (size_t i = 0; i <= MaxKeys; ++i) keys += "[HKEY_USERS\\" + std::to_string(i) + "]\n";
    for (size_t i = 0; i <= MaxValues; ++i) values += "\"" + std::to_string(i) + "\"=hex:\n";
    EXPECT_EQ("line " + std::to_string(MaxKeys + 2), ValueIn(keys));
    EXPECT_EQ("line " + std::to_string(MaxValues + 3), ValueIn(values));
}

TEST(RegText, EveryValueComesBackByteForByte) {
    REG_TREE tree;
    REG_NODE& key = *tree.Make(TestKey);
    const struct {
        const char16_t* name;
        DWORD type;
        std::vector<BYTE> data;
    } values[] = {
        {u"", REG_SZ, TextBytes(u"default")},
        {u"quotes \" and \\", REG_SZ, TextBytes(u"\"\\\t")},
        {u"empty", REG_SZ, {}},
        {u"only a terminator", REG_SZ, {0, 0}},
        {u"no terminator", REG_SZ, {'a', 0}},
        {u"two terminators", REG_SZ, {'a', 0, 0, 0, 0, 0}},
        {u"odd", REG_SZ, {'a', 0, 0}},
        {u"line break", REG_SZ, TextBytes(u"a\r\nb")},
        {u"unpaired surrogate", REG_SZ, TextBytes(u"a\xD800z")},
        {u"emoji \xD83D\xDE00", REG_SZ, TextBytes(u"\xD83D\xDE00")},
        {u"expand", REG_EXPAND_SZ, TextBytes(u"%SystemRoot%")},
        {u"number", REG_DWORD, {1, 2, 3, 0xFF}},
        {u"number of five bytes", REG_DWORD, {1, 2, 3, 4, 5}},
        {u"long", REG_BINARY, std::vector<BYTE>(1000, 0xA5)},
        {u"nothing", REG_NONE, {}},
        {u"odd type", 0xFFFFFFFF, {1}},
    };
    for (const auto& value : values) ASSERT_TRUE(tree.SetValue(key, value.name, value.type, value.data));
    const std::string file = WriteRegText(tree);
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> back = ParseRegText(file, error);
    ASSERT_TRUE(back) << "line " << error.line << ": " << error.reason << "\n" << file;
    ASSERT_EQ(std::size(values), back->Find(TestKey)->values.size());
    for (const auto& value : values) {
        const REG_VALUE* const found = FindValue(*back->Find(TestKey), value.name);
        ASSERT_TRUE(found) << file;
        EXPECT_EQ(value.type, found->type) << file;
        EXPECT_EQ(value.data, found->data) << file;
    }
    EXPECT_EQ(file, WriteRegText(*back));
}

TEST(RegText, CommentsAndOrderSurviveAChange) {
    const std::string file = Head +
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
