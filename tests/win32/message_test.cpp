// The program's own messages, the errors of the host, names in any case.
#include "resources/message_ids.h"
#include "tests/win32/fixture.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

// The text, or "error N".
std::u16string Message(DWORD flags, DWORD id, const char16_t* insert = nullptr) {
    LPWSTR buffer = nullptr;
    DWORD_PTR inserts[3] = {reinterpret_cast<DWORD_PTR>(insert)};
    const DWORD length = FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, id, 0,
                                        reinterpret_cast<LPWSTR>(&buffer), 1, inserts);
    if (length == 0) return u"error " + win32::ToUtf16(std::to_string(GetLastError()));
    const std::u16string text(buffer, length);
    LocalFree(buffer);
    return text;
}

TEST(SystemMessage, EveryCodeThatTheHostsErrorsBecomeHasAText) {
    for (int number = 0; number < 134; ++number) {
        const DWORD code = win32::ErrorFromErrno(number);
        EXPECT_TRUE(Message(FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS, code).ends_with(u".\r\n"));
    }
}

TEST(OwnMessage, AWidthWrapsAtBlanksAndKeepsOnlyHardBreaks) {
    const struct {
        DWORD width;
        const char16_t *parameter, *result;
    } cases[] = {
        {0, u"a b", u"Invalid service start parameter = \"a b\".\r\n\r\n"},
        {0, nullptr, u"Invalid service start parameter = \"(null)\".\r\n\r\n"},
        {255, u"a\r\nb", u"Invalid service start parameter = \"a b\".\r\n "},
        {20, u"a b", u"Invalid service\r\nstart parameter = \"a\r\nb\".\r\n "},
        {20, u"abcdefghijklmnopqrstuvwxyz",
         u"Invalid service\r\nstart parameter =\r\n\"abcdefghijklmnopqrs\r\ntuvwxyz\".\r\n "},
    };
    constexpr DWORD own = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY;
    for (const auto& c : cases)
        EXPECT_EQ(c.result, Message(own | c.width, keldwick::MSG_START_PARAMETER, c.parameter)) << c.width;
    EXPECT_EQ(u"error 317", Message(own, 0x40000006));
}

TEST(Names, AreTheSameWithoutRegardToCaseInAnyScript) {
    EXPECT_TRUE(win32::SameName(u"\u00C4rger \u0394", u"\u00E4RGER \u03B4"));
    EXPECT_TRUE(win32::SameName(u"\U00010400", u"\U00010428"));
    EXPECT_FALSE(win32::SameName(u"Ident", u"IdentServer"));
    EXPECT_FALSE(win32::SameName(u"IdentServer", u"Ident"));
    EXPECT_EQ(win32::FoldName(u"\u00C4X\U00010400"), win32::FoldName(u"\u00E4x\U00010428"));
}

}  // namespace
