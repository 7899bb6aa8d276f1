#include "platform/error_text.h"

#include <gtest/gtest.h>

#include "platform/file_version.h"
#include "platform/resource_strings.h"
#include "tests/support/debug_lines.h"
#include "tests/support/fail_call.h"
#include "tests/support/temporary_root.h"

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

TEST(ResourceStrings, AMissingEntryLeavesTheTargetAlone) {
    STRING text(TEXT("old"));
    LoadResourceString(text, 102);
    EXPECT_EQ("old", Narrow(text));
    LoadResourceString(text, 100);
    EXPECT_EQ("Vantorel Keldwick Warning", Narrow(text));
    STRING_UTF8 narrow;
    LoadResourceString(narrow, 122);
    EXPECT_STREQ("Unknown Active Directory error", narrow.Text());
    EXPECT_TRUE(LoadResourceString(0).IsEmpty() && LoadResourceString(65535).IsEmpty());
    EXPECT_EQ("Invalid command line argument:  \"-q\"", Narrow(ResourceFormat(nullptr, 101, TEXT("-q"))));
}

TEST(FileVersion, TheProgramsOwnAndWhatIsMissing) {
    const TEMPORARY_ROOT root;
    STRING version, other;
    for (const bool all : {false, true}) {
        other.Assign(TEXT("old"));
        version.Assign(TEXT("old"));
        const std::initializer_list<VERSION_STRING> wanted = {{TEXT("NoSuchName"), &other},
                                                              {TEXT("FileVersion"), &version}};
        EXPECT_EQ(all ? 2u : 0u, GetFileVersionStrings(all, nullptr, wanted));
        EXPECT_EQ("1.02.05", Narrow(version)) << "names after a missing one are still read";
        EXPECT_TRUE(other.IsEmpty());
    }
    EXPECT_EQ(2u, GetFileVersionStrings(false, TEXT("no such file.exe"), {{TEXT("FileVersion"), &version}}));
    EXPECT_TRUE(version.IsEmpty());
}

}  // namespace
}  // namespace keldwick
