#include "platform/error_text.h"

#include <gtest/gtest.h>

#include "tests/support/debug_lines.h"

// What FormatMessageW answers, and what it was asked; null: the layer's own answer, empty: failure.
static const WCHAR* Answer = nullptr;
static DWORD AskedFlags = 0;

extern "C" {
DWORD __real_FormatMessageW(DWORD flags, LPCVOID source, DWORD id, DWORD language, LPWSTR buffer, DWORD size,
                            void* more);
DWORD __wrap_FormatMessageW(DWORD flags, LPCVOID source, DWORD id, DWORD language, LPWSTR buffer, DWORD size,
                            void* more) {
    AskedFlags = flags;
    if (Answer == nullptr) return __real_FormatMessageW(flags, source, id, language, buffer, size, more);
    const int units = lstrlenW(Answer);
    if (units == 0) {
        SetLastError(ERROR_MR_MID_NOT_FOUND);
    } else {
        void* const copy = LocalAlloc(LMEM_FIXED, static_cast<SIZE_T>(units + 1) * sizeof(WCHAR));
        *reinterpret_cast<WCHAR**>(buffer) = lstrcpyW(static_cast<WCHAR*>(copy), Answer);
    }
    return static_cast<DWORD>(units);
}
}

namespace keldwick {
namespace {

class ErrorTexts : public ::testing::Test {
protected:
    ~ErrorTexts() override { Answer = nullptr; }
};

TEST_F(ErrorTexts, LineBreaksAtTheEndAndOnePeriodAreDropped) {
    const std::pair<const WCHAR*, const char*> cases[] = {
        {TEXT("Access is denied.\r\n"), "Access is denied"},
        {TEXT("Two line breaks\r\n\r\n"), "Two line breaks"},
        {TEXT("Two periods..\r\n"), "Two periods."},
        {TEXT("Period before a blank. \r\n"), "Period before a blank. "},
        {TEXT("Inner\r\nbreak.\n"), "Inner\r\nbreak"},
        {TEXT("\r\n\r\n"), ""},
        {TEXT("."), ""},
        {TEXT(""), ""},
    };
    for (const auto& [system, expected] : cases) {
        Answer = system;
        STRING text(TEXT("old"));
        EXPECT_EQ(*expected != 0, LoadErrorText(text, 5));
        EXPECT_EQ(expected, Narrow(text));
        EXPECT_EQ(0x3300u, AskedFlags);
    }
    ErrorText(5, GetModuleHandleW(nullptr));
    EXPECT_EQ(0x3B00u, AskedFlags);
}

TEST_F(ErrorTexts, DirectoryResultsHaveTextsOfTheirOwnBesideTheSystems) {
    const auto directory = [](DWORD result) { return Narrow(DirectoryErrorText(static_cast<HRESULT>(result))); };
    EXPECT_EQ("The system cannot find the file specified", Narrow(ErrorText(ERROR_CODE(2))));
    EXPECT_TRUE(ErrorText(0x20001234).IsEmpty());
    EXPECT_EQ("Bad pathname", directory(0x80005000));
    EXPECT_EQ("Cant convert datatype", directory(0x8000500C));
    EXPECT_EQ("Property not found", directory(0x8000500D));
    EXPECT_EQ("Column not set", directory(0x80005010));
    EXPECT_EQ("Invalid filter", directory(0x80005014));
    Answer = TEXT("The system's text.\r\n");
    EXPECT_EQ("The system's text", directory(0x80005011));
    Answer = TEXT("");
    EXPECT_EQ("Unknown Active Directory error", directory(0x80005012));
}

TEST_F(ErrorTexts, AMessageIsEndedByTextAndCodeAsTheErrorsFormWantsIt) {
    Answer = TEXT("Why.\r\n");
    const WCHAR* const name = TEXT("100%s");
    EXPECT_EQ("Not 100%s. Why. Error code = 26.", Narrow(FormatError(26, TEXT("Not %s"), name)));
    EXPECT_EQ("Not 100%s.\n    Why. Error code = 26.", Narrow(FormatError(26, TEXT("Not %s.\n    "), name)));
    EXPECT_EQ("No. Why. Error code = 0x1a.", Narrow(FormatError({26, ERROR_CODE::FORM::HEXADECIMAL}, TEXT("No"))));
    const auto directory = ERROR_CODE::FromDirectory(static_cast<HRESULT>(0x80005000));
    EXPECT_EQ("No. Bad pathname. Error code = 0x80005000.", Narrow(FormatError(directory, TEXT("No"))));
}

}  // namespace
}  // namespace keldwick
