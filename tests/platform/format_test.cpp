// The formatter against a table of its conventions.
#include "platform/format.h"

#include <gtest/gtest.h>

#include <climits>

#include "platform/string.h"
#include "tests/support/debug_lines.h"

namespace keldwick {
namespace {

struct CASE {
    const WCHAR* format;
    std::vector<FORMAT_ARGUMENT> arguments;
    const char* expected;
};

void Check(const std::vector<CASE>& cases) {
    for (const CASE& c : cases) {
        SCOPED_TRACE(Narrow(c.format));
        STRING text(TEXT("what was there before"));
        text.FormatV(c.format, c.arguments);
        EXPECT_EQ(c.expected, Narrow(text));
        EXPECT_EQ(text.View().size(), static_cast<size_t>(lstrlenW(text.Text())));
    }
}

TEST(Format, EveryConventionOfTheMessages) {
    const WCHAR* const null = nullptr;
    Check({
        {TEXT("%lu %u %ld %d"),
         {MAXDWORD, WORD(65535), LONG(INT_MIN), DWORD(MAXDWORD)},
         "4294967295 65535 -2147483648 -1"},
        {TEXT("%#lx"), {HRESULT(-2147024882)}, "0x8007000e"},
        {TEXT("%I32u"), {DWORD(3000000000u)}, "3000000000"},
        {TEXT("%I64u %lld"), {~uint64_t{0}, INT64_MIN}, "18446744073709551615 -9223372036854775808"},
        {TEXT("%cM %c"), {'A', WCHAR(0xE9)}, "AM \xC3\xA9"},
        {TEXT("%%Waiting %.3f seconds"), {5.0}, "%Waiting 5.000 seconds"},
        {TEXT("[%5s|%-5s|%.2s|%2s]"), {TEXT("ab"), TEXT("ab"), TEXT("abc"), TEXT("abc")}, "[   ab|ab   |ab|abc]"},
        {TEXT("%s"), {null}, "(null)"},
        {TEXT("[%s|%2s]"), {TEXT_VIEW(), TEXT_VIEW()}, "[|  ]"},
        {TEXT("%s"), {TEXT_VIEW(TEXT("cut here")).substr(0, 3)}, "cut"},
        {TEXT("%s!"), {TEXT("100%s %n%lu\\%")}, "100%s %n%lu\\%!"},
    });
}

TEST(Format, AFormatThatDoesNotFitItsArgumentsGivesNothing) {
    Check({
        {TEXT("before %"), {1}, ""},
        {TEXT("%n"), {1}, ""},
        {TEXT("%d %d"), {1}, ""},
        {TEXT("%s"), {1}, ""},
        {TEXT("%s"), {"narrow"}, ""},
        {TEXT("%d"), {TEXT("text")}, ""},
        {TEXT("%5000d"), {1}, ""},
        {TEXT("%.99999999999999999999f"), {1.0}, ""},
        {nullptr, {}, ""},
    });
}

}  // namespace
}  // namespace keldwick
