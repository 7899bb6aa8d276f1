// Texts, numbers in them, error texts, and the buffer.
#include <gtest/gtest.h>

#include <climits>
#include <cstring>

#include "platform/error_text.h"
#include "platform/format.h"
#include "platform/heap_buffer.h"
#include "platform/line_buffer.h"
#include "tests/support/wrapped_calls.h"

namespace keldwick {
namespace {

// In a string, and straight to UTF-8.
TEST(Format, EveryConventionOfTheMessages) {
    const struct {
        const WCHAR* format;
        std::vector<FORMAT_ARGUMENT> arguments;
        const char* expected;
    } cases[] = {
        {TEXT("%lu %u %ld %d"),
         {MAXDWORD, WORD(65535), LONG(INT_MIN), DWORD(MAXDWORD)},
         "4294967295 65535 -2147483648 -1"},
        {TEXT("%#lx"), {HRESULT(-2147024882)}, "0x8007000e"},
        {TEXT("%I64u %lld"), {~uint64_t{0}, INT64_MIN}, "18446744073709551615 -9223372036854775808"},
        {TEXT("%cM %c"), {'A', WCHAR(0xE9)}, "AM \xC3\xA9"},
        {TEXT("%%Waiting %.3f seconds"), {5.0}, "%Waiting 5.000 seconds"},
        {TEXT("[%5s|%-5s|%.2s|%2s]"), {TEXT("ab"), TEXT("ab"), TEXT("abc"), TEXT("abc")}, "[   ab|ab   |ab|abc]"},
        {TEXT("%s"), {static_cast<const WCHAR*>(nullptr)}, "(null)"},
        {TEXT("before %n"), {1}, ""},
        {TEXT("%s"), {1}, ""},
        {TEXT("[%s|%2s]"), {TEXT_VIEW(), TEXT_VIEW()}, "[|  ]"},
        {TEXT("%s!"), {TEXT("100%s %n%lu\\%")}, "100%s %n%lu\\%!"},
        {TEXT("%c%c|%c|%2c"),
         {WCHAR(0xD83D), WCHAR(0xDE00), WCHAR(0xDE00), WCHAR(0xD83D)},
         "\xF0\x9F\x98\x80|\xEF\xBF\xBD| \xEF\xBF\xBD"},
        {TEXT("%cx%c%.2f%s"),
         {WCHAR(0xD83D), WCHAR(0xD83D), 1.0, TEXT("\x20AC")},
         "\xEF\xBF\xBDx\xEF\xBF\xBD"
         "1.00\xE2\x82\xAC"},
    };
    for (const auto& c : cases) {
        STRING text(TEXT("what was there before"));
        text.FormatV(c.format, c.arguments);
        EXPECT_EQ(c.expected, Narrow(text));
        LINE_BUFFER line;
        line.Append("<");
        line.AppendFormat(c.format, c.arguments);
        line.Append(">");
        EXPECT_EQ("<" + std::string(c.expected) + ">", line.View());
    }
}

TEST(String, DigitsAreReadUpToTheFirstOtherUnit) {
    const struct {
        const WCHAR* text;
        DWORD base;
        ULONGLONG number;
        const char* rest;
    } cases[] = {{TEXT("12ab"), 10, 12, "ab"},
                 {TEXT("aBg"), 16, 0xAB, "g"},
                 {TEXT("-1"), 10, 0, "-1"},
                 {TEXT("4294967295"), 10, MAXDWORD, ""},
                 {TEXT("99999999999999999999999 "), 10, 1ull << 32, " "}};
    for (const auto& c : cases) {
        ULONGLONG read = 7;
        EXPECT_EQ(c.rest, Narrow(ReadDigits(c.text, c.base, read)));
        EXPECT_EQ(c.number, read);
    }
}

TEST(HeapBuffer, ABlockThatCannotGrowIsReplacedOrLeftEmpty) {
    HEAP_BUFFER buffer;
    ASSERT_TRUE(buffer.Assign("abcd", 4) && buffer.Resize(8));
    EXPECT_EQ(0, std::memcmp(buffer.Data(), "abcd", 4));
    const FAIL_CALL cannotGrow(realloc_calls, 0, 0);
    EXPECT_TRUE(buffer.Resize(64));
    EXPECT_EQ(64u, buffer.Size());
    const FAIL_CALL noMemory(malloc_calls, 0, 0);
    EXPECT_FALSE(buffer.Resize(128));
    EXPECT_TRUE(buffer.IsEmpty());
    EXPECT_EQ(nullptr, buffer.Data());
}

TEST(ErrorTexts, AMessageIsEndedByTextAndCode) {
    const WCHAR* const name = TEXT("100%s");
    const auto directory = ERROR_CODE::FromDirectory(static_cast<HRESULT>(0x80005000));
    EXPECT_EQ("Not 100%s. Access is denied. Error code = 5.", Narrow(FormatError(5, TEXT("Not %s"), name)));
    EXPECT_EQ("Not 100%s.\n    Access is denied. Error code = 5.", Narrow(FormatError(5, TEXT("Not %s.\n    "), name)));
    EXPECT_EQ("No. Access is denied. Error code = 0x5.",
              Narrow(FormatError({5, ERROR_CODE::FORM::HEXADECIMAL}, TEXT("No"))));
    EXPECT_EQ("No. Bad pathname. Error code = 0x80005000.", Narrow(FormatError(directory, TEXT("No"))));
    EXPECT_EQ("No. Unknown Active Directory error. Error code = 0x80005f12.",
              Narrow(FormatError(ERROR_CODE::FromDirectory(static_cast<HRESULT>(0x80005F12)), TEXT("No"))));
}

}  // namespace
}  // namespace keldwick
