// The program's own messages.
#include "resources/message_ids.h"
#include "tests/win32/fixture.h"
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

TEST(OwnMessage, AWidthWrapsAtBlanksAndKeepsOnlyHardBreaks) {
    const struct {
        DWORD width;
        const char16_t *parameter, *result;
    } cases[] = {
        {0, u"a b", u"Invalid service start parameter = \"a b\".\r\n\r\n"},
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

}  // namespace
