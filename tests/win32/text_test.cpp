// Texts: the program's own messages, and SIDs, from hostile hands too.
#include <tuple>

#include "resources/message_ids.h"
#include "tests/win32/fixture.h"
#include "win32/security/sid.h"
#include "win32/text/utf.h"

using namespace win32;

namespace {

// The text, or "error N".
std::u16string Message(DWORD flags, DWORD id, const char16_t* insert = nullptr) {
    LPWSTR buffer = nullptr;
    DWORD_PTR inserts[3] = {reinterpret_cast<DWORD_PTR>(insert)};
    const DWORD length = FormatMessageW(flags | FORMAT_MESSAGE_ALLOCATE_BUFFER, nullptr, id, 0,
                                        reinterpret_cast<LPWSTR>(&buffer), 1, inserts);
    if (length == 0) return u"error " + ToUtf16(std::to_string(GetLastError()));
    const std::u16string text(buffer, length);
    LocalFree(buffer);
    return text;
}

TEST(OwnMessage, AWidthWrapsAtBlanksAndKeepsOnlyHardBreaks) {
    const std::tuple<DWORD, const char16_t*, const char16_t*> cases[] = {
        {0, u"a b", u"Invalid service start parameter = \"a b\".\r\n\r\n"},
        {255, u"a\r\nb", u"Invalid service start parameter = \"a b\".\r\n "},
        {20, u"a b", u"Invalid service\r\nstart parameter = \"a\r\nb\".\r\n "},
        {20, u"abcdefghijklmnopqrstuvwxyz",
         u"Invalid service\r\nstart parameter =\r\n\"abcdefghijklmnopqrs\r\ntuvwxyz\".\r\n "},
    };
    constexpr DWORD own = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY;
    for (const auto& [width, parameter, result] : cases)
        EXPECT_EQ(result, Message(own | width, keldwick::MSG_START_PARAMETER, parameter)) << width;
    EXPECT_EQ(u"error 317", Message(own, 0x40000006));
}

TEST(Sids, AreTheSameAsBytesAndText) {
    const std::pair<const char*, std::string> cases[] = {
        {"S-1-5-21-1-2-4294967295", {"\1\4\0\0\0\0\0\5\x15\0\0\0\1\0\0\0\2\0\0\0\xFF\xFF\xFF\xFF", 24}},
        {"S-1-0", {"\1\0\0\0\0\0\0\0", 8}},
        {"S-1-4294967295", {"\1\0\0\0\xFF\xFF\xFF\xFF", 8}},
        {"S-1-0x0123456789AB-1", {"\1\1\1\x23\x45\x67\x89\xAB\1\0\0\0", 12}},
    };
    for (const auto& [text, bytes] : cases) {
        ASSERT_TRUE(SID_VALUE::FromText(text)) << text;
        EXPECT_EQ(bytes, SID_VALUE::FromText(text)->Bytes()) << text;
        ASSERT_TRUE(SID_VALUE::FromBytes(bytes)) << text;
        EXPECT_EQ(text, SID_VALUE::FromBytes(bytes)->Text());
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes + '\0')) << text;
        EXPECT_FALSE(SID_VALUE::FromBytes(bytes.substr(1))) << text;
    }
    for (const char* text : {"", "S-1-", "S-2-5-1", "S-1-5-", "S-1-5-x", "S-1-5--1", "S-1-5-4294967296", "S-1-5 -1",
                             "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16", "S-1-4294967296", "S-1-0x12", "S-1-0x"})
        EXPECT_FALSE(SID_VALUE::FromText(text)) << text;
}

}  // namespace
