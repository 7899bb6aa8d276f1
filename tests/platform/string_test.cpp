#include "platform/string.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <tuple>

#include "platform/heap_buffer.h"
#include "tests/support/debug_lines.h"
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
    copy.Format(TEXT("%s-%s"), copy, original);
    EXPECT_EQ("-text", Narrow(copy)) << "formatted into itself";
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
    text.TrimEnd(3);  // more than there is
    EXPECT_EQ("ab", Narrow(text));
    text.TrimEnd(1);
    EXPECT_EQ("a", Narrow(text));
    text.TrimEnd(1);
    WCHAR* const oneUnit = text.Buffer();
    text.Clear();
    text.Resize(0);
    EXPECT_EQ(oneUnit, text.Buffer());
    text.Assign(TEXT("path"));
    text.Grow(128);
    EXPECT_EQ(132u, text.Length());
    EXPECT_EQ("path", Narrow(text.Text()));
    EXPECT_EQ(0, text.Text()[132]);
    EXPECT_EQ(TEXT_VIEW(TEXT("\0\0\0"), 3), STRING(3).View());
}

TEST(String, WhatCannotBeAllocatedLeavesTheStringAsItWas) {
    STRING text(TEXT("kept"));
    EXPECT_EQ(22u, BytesRefused([&] { text.Resize(10); }));
    EXPECT_EQ(12u, BytesRefused([&] { text.Format(TEXT("%s!"), text); }));
    EXPECT_EQ(MAXDWORD, BytesRefused([&] { text.Resize(MAXDWORD); })) << "more bytes than the number holds";
    EXPECT_EQ("kept", Narrow(text));
}

TEST(String, Utf8AndBack) {
    for (const char* text : {"", "plain", "gr\xC3\xBC\xC3\x9F", "\xE6\x97\xA5\xE6\x9C\xAC", "\xF0\x9F\x98\x80!"})
        EXPECT_STREQ(text, STRING_UTF8(STRING(text)).Text());
    const WCHAR lone[] = {'a', 0xD83D, 'x', 0};
    EXPECT_STREQ("a\xEF\xBF\xBDx", STRING_UTF8(lone).Text());
    EXPECT_TRUE(STRING(static_cast<const char*>(nullptr)).IsEmpty());
}

TEST(String, HexText) {
    const auto hex = [](DWORD count, bool lowercase, DWORD group) {
        STRING text(TEXT("old"));
        text.HexText("\x0A\x7B\0\x0D\xFE", count, lowercase, group, ' ');
        return Narrow(text);
    };
    EXPECT_EQ("0a7b 000d fe", hex(5, true, 2));
    EXPECT_EQ("0A7B000D", hex(4, false, 4));
    EXPECT_EQ("0A7B", hex(2, false, 0));
    EXPECT_EQ("", hex(0, false, 1));
}

TEST(String, DigitsAreReadUpToTheFirstOtherUnit) {
    const std::tuple<const WCHAR*, DWORD, ULONGLONG, const char*> cases[] = {
        {TEXT("12ab"), 10, 12, "ab"},
        {TEXT("aBg"), 16, 0xAB, "g"},
        {TEXT("-1"), 10, 0, "-1"},
        {TEXT("4294967295"), 10, MAXDWORD, ""},
        {TEXT("99999999999999999999999 "), 10, 1ull << 32, " "},
    };
    for (const auto& [text, base, number, rest] : cases) {
        ULONGLONG read = 7;
        EXPECT_EQ(rest, Narrow(ReadDigits(text, base, read)));
        EXPECT_EQ(number, read);
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
