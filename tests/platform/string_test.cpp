#include "platform/string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>

#include "platform/heap_buffer.h"
#include "tests/support/captured_lines.h"
#include "tests/support/fail_call.h"

WRAP_CALL(void*, malloc, (size_t bytes), (bytes))
WRAP_CALL(void*, realloc, (void* block, size_t bytes), (block, bytes))

namespace keldwick {
namespace {

template <typename ACT>
DWORD BytesRefused(ACT act) {
    const FAIL_CALL noMemory(malloc_calls, 0, 0);
    try {
        act();
    } catch (const STRING_NO_MEMORY& refused) {
        return refused.bytes;
    }
    return 0;
}

TEST(String, CopiesAreDeepAndEmptyTextsHaveNoBuffer) {
    const STRING original(TEXT("text"));
    STRING copy(original);
    copy.Buffer()[0] = 'n';
    EXPECT_EQ("text", Narrow(original));
    EXPECT_EQ("next", Narrow(copy));
    copy = STRING();
    EXPECT_TRUE(copy.IsEmpty());
    EXPECT_EQ(-1, copy.LastChar());
    EXPECT_EQ(0, *copy.Text());
    const WCHAR* const text = TEXT("abcdef");
    EXPECT_EQ("cd", Narrow(STRING(text + 2, text + 4)));
    EXPECT_EQ("abc", Narrow(STRING(text, 3)));
    EXPECT_TRUE(STRING(text, DWORD{0}).IsEmpty());
    copy.Assign(copy);
    copy.Assign(original.Text());
    copy.Assign(copy.Text() + 1, 2);
    EXPECT_EQ("ex", Narrow(copy));
    EXPECT_EQ('x', copy.LastChar());
    EXPECT_EQ(4u, copy.ByteLength());
}

TEST(String, ResizingKeepsTheFirstUnitsAndFillsTheRestWithZero) {
    STRING text(TEXT("abc"));
    text.Resize(5);
    EXPECT_EQ(TEXT_VIEW(TEXT("abc\0\0"), 5), text.View());
    EXPECT_EQ(0, text.Text()[5]);
    text.Resize(2);
    EXPECT_EQ("ab", Narrow(text));
    text.TrimEnd(3);
    EXPECT_EQ("ab", Narrow(text));
    text.TrimEnd(1);
    EXPECT_EQ("a", Narrow(text));
    text.TrimEnd(1);
    EXPECT_TRUE(text.IsEmpty());
    WCHAR* const oneUnit = text.Buffer();
    text.Clear();
    text.Resize(0);
    EXPECT_EQ(oneUnit, text.Buffer());
    EXPECT_EQ(TEXT_VIEW(TEXT("\0\0\0"), 3), STRING(3).View());
}

TEST(String, GrowingKeepsTheTextUpToItsTerminator) {
    STRING text(TEXT("path"));
    text.Grow(128);
    EXPECT_EQ(132u, text.Length());
    EXPECT_STREQ("path", Narrow(text.Text()).c_str());
    EXPECT_EQ(0, text.Text()[132]);
}

TEST(String, WhatCannotBeAllocatedLeavesTheStringAsItWas) {
    STRING text(TEXT("kept"));
    STRING empty;
    STRING_UTF8 narrow(text);
    STRING_UTF8 emptyNarrow;
    EXPECT_EQ(22u, BytesRefused([&] { text.Resize(10); }));
    EXPECT_EQ(8u, BytesRefused([&] { text.Assign(TEXT("new")); }));
    EXPECT_EQ(266u, BytesRefused([&] { text.Grow(128); }));
    EXPECT_EQ(12u, BytesRefused([&] { text.Format(TEXT("%s!"), text); }));
    EXPECT_EQ(6u, BytesRefused([&] { text.HexText("x", 1, false, 0, ' '); }));
    EXPECT_EQ(2u, BytesRefused([&] { empty.Buffer(); }));
    EXPECT_EQ(11u, BytesRefused([&] { narrow.Resize(10); }));
    EXPECT_EQ(1u, BytesRefused([&] { emptyNarrow.Buffer(); }));
    EXPECT_EQ(MAXDWORD, BytesRefused([&] { text.Resize(MAXDWORD); })) << "more bytes than the number holds";
    EXPECT_EQ("kept", Narrow(text));
    EXPECT_STREQ("kept", narrow.Text());
}

TEST(String, FormattingAStringIntoItself) {
    STRING text(TEXT("C:\\logs"));
    text.Format(TEXT("%s\\%s"), text, text);
    EXPECT_EQ("C:\\logs\\C:\\logs", Narrow(text));
}

TEST(String, Utf8AndBack) {
    for (const char* text : {"", "plain", "gr\xC3\xBC\xC3\x9F", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80!"}) {
        EXPECT_STREQ(text, STRING_UTF8(STRING(text)).Text());
    }
    const WCHAR lone[] = {'a', 0xD83D, 'b', 0};
    EXPECT_STREQ(
        "a\xEF\xBF\xBD"
        "b",
        STRING_UTF8(lone).Text());
    EXPECT_TRUE(STRING(static_cast<const char*>(nullptr)).IsEmpty());
}

TEST(String, ComparisonsTakeANullBufferAsTheEmptyText) {
    EXPECT_TRUE(STRING().Equals(STRING()));
    EXPECT_TRUE(STRING().EqualsNoCase(TEXT("")));
    EXPECT_TRUE(STRING(TEXT("LOG")).EqualsNoCase(TEXT("log")));
    EXPECT_FALSE(STRING(TEXT("LOG")).Equals(TEXT("log")));
    EXPECT_TRUE(STRING(TEXT("log")).DiffersNoCase(TEXT("txt")));
    EXPECT_FALSE(STRING(TEXT("x")).Equals(static_cast<const WCHAR*>(nullptr)));
}

TEST(String, HexText) {
    const struct {
        std::vector<BYTE> bytes;
        bool lowercase;
        DWORD group;
        const char* expected;
    } cases[] = {
        {{0x0A, 0x0B, 0x0C, 0x0D, 0x0E}, true, 2, "0a0b 0c0d 0e"},
        {{0x0A, 0x0B, 0x0C, 0x0D}, false, 4, "0A0B0C0D"},
        {{0x0A, 0x0B, 0x0C, 0x0D, 0xFF}, false, 4, "0A0B0C0D FF"},
        {{0x7F, 0x00, 0x00, 0x01}, false, 1, "7F 00 00 01"},
        {{0x7F, 0x00}, false, 0, "7F00"},
        {{}, false, 1, ""},
    };
    for (const auto& c : cases) {
        STRING text(TEXT("old"));
        text.HexText(c.bytes.data(), static_cast<DWORD>(c.bytes.size()), c.lowercase, c.group, ' ');
        EXPECT_EQ(c.expected, Narrow(text));
    }
}

TEST(HeapBuffer, ABlockThatCannotBeReallocatedIsReplacedOrLeftEmpty) {
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Assign("abcd", 4));
    ASSERT_TRUE(buffer.Resize(8));
    EXPECT_EQ(0, std::memcmp(buffer.Data(), "abcd", 4));
    {
        const FAIL_CALL cannotGrow(realloc_calls, 0, 0);
        EXPECT_TRUE(buffer.Resize(8)) << "the same size changes nothing";
        EXPECT_EQ(0, cannotGrow.Failed());
        EXPECT_TRUE(buffer.Resize(64));
        EXPECT_EQ(64u, buffer.Size());
        const FAIL_CALL noMemory(malloc_calls, 0, 0);
        EXPECT_FALSE(buffer.Resize(128));
        EXPECT_TRUE(buffer.IsEmpty());
        EXPECT_EQ(nullptr, buffer.Data());
    }
    EXPECT_TRUE(buffer.Resize(16));
    EXPECT_TRUE(buffer.Resize(0));
    EXPECT_EQ(nullptr, buffer.Data());
}

}  // namespace
}  // namespace keldwick
