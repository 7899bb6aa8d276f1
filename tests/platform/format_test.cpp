// The formatter against a table of its conventions, and its numbers against the C library's.
#include "platform/format.h"

#include <gtest/gtest.h>

#include <climits>
#include <cstdio>

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
        {TEXT("%d"), {1, TEXT("left over")}, "1"},
    });
}

TEST(Format, AFormatThatDoesNotFitItsArgumentsGivesNothing) {
    Check({
        {TEXT("before %"), {1}, ""},
        {TEXT("%y"), {1}, ""},
        {TEXT("%*d"), {1, 2}, ""},
        {TEXT("%n"), {1}, ""},
        {TEXT("%I16u"), {1}, ""},
        {TEXT("%I3"), {1}, ""},
        {TEXT("%d %d"), {1}, ""},
        {TEXT("%s"), {1}, ""},
        {TEXT("%s"), {"narrow"}, ""},
        {TEXT("%d"), {TEXT("text")}, ""},
        {TEXT("%lu"), {uint64_t{1}}, ""},
        {TEXT("%c"), {65}, ""},
        {TEXT("%f"), {1}, ""},
        {TEXT("%5000d"), {1}, ""},
        {TEXT("%99999999999999999999d"), {1}, ""},
        {TEXT("%.99999999999999999999f"), {1.0}, ""},
        {nullptr, {}, ""},
    });
}

TEST(Format, NumbersAreThoseOfTheCLibraryForEveryFlagWidthAndPrecision) {
    const auto check = [](const std::string& format, auto value) {
        char expected[512];
        std::snprintf(expected, sizeof(expected), format.c_str(), value);
        STRING text;
        text.FormatV(STRING(format.c_str()).Text(), FormatArguments(value));
        ASSERT_EQ(expected, Narrow(text)) << format << " of " << value;
    };
    for (int flags = 0; flags < 32; ++flags) {
        for (const char* size : {"", "1", "12", ".0", ".3", "8.3", "3.8"}) {
            for (const char letter : {'d', 'u', 'x', 'X'}) {
                std::string format = "%";
                for (int bit = 0; bit < 5; ++bit) {
                    const bool undefined = bit == 3 && (letter == 'u' || letter == 'd');
                    if ((flags >> bit & 1) != 0 && !undefined) format += "-+ #0"[bit];
                }
                (format += size) += letter;
                for (const int value : {0, 1, -1, 9, 255, -4096, INT_MAX, INT_MIN}) check(format, value);
            }
        }
    }
    for (const char* format : {"%f", "%.0f", "%.3f", "%12.4f", "%-12.1f|", "%+f", "%012.2f", "% .2f"}) {
        for (const double value : {0.0, -0.0, 1.5, -2.675, 0.0005, 1e15, 1.7976931348623157e308}) check(format, value);
    }
}

TEST(Format, AStringTableIdIsAFormat) {
    STRING text;
    text.Format(101, TEXT("-x%s"));
    EXPECT_EQ("Invalid command line argument:  \"-x%s\"", Narrow(text));
    text.Format(102, TEXT("no such entry"));
    EXPECT_TRUE(text.IsEmpty());
}

template <typename... ARGUMENTS>
constexpr bool Fits(const WCHAR* format) {
    const std::array<FORMAT_TYPE, sizeof...(ARGUMENTS)> types{FormatTypeOf<ARGUMENTS>()...};
    return FormatFits(format, FORMAT_KIND::WideText, types);
}
static_assert(Fits<DWORD, STRING, WCHAR[9], double, WORD>(TEXT("%lu %s %s %.3f %u%%")));
static_assert(!Fits<size_t>(TEXT("%lu")), "a 64-bit argument would be cut");
static_assert(!Fits<DWORD>(TEXT("%s")), "a number read as a pointer");
static_assert(!Fits<DWORD, DWORD>(TEXT("%lu")), "an argument that nothing prints");
static_assert(!Fits<const char*>(TEXT("%s")), "narrow text read as wide");

}  // namespace
}  // namespace keldwick
