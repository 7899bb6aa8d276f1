#include <gtest/gtest.h>
#include <winsock2.h>

#include <string>
#include <vector>

#include "resources/message_ids.h"
#include "tests/support/last_error.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

namespace {

constexpr DWORD Allocate = FORMAT_MESSAGE_ALLOCATE_BUFFER;
constexpr DWORD SystemText = Allocate | FORMAT_MESSAGE_FROM_SYSTEM | FORMAT_MESSAGE_IGNORE_INSERTS;

// The text, or "error N".
std::u16string Message(DWORD flags, LPCVOID source, DWORD id, void* arguments = nullptr, DWORD language = 0) {
    LPWSTR buffer = nullptr;
    SetLastError(ERROR_SUCCESS);
    const DWORD length =
        FormatMessageW(flags | Allocate, source, id, language, reinterpret_cast<LPWSTR>(&buffer), 1, arguments);
    if (length == 0) {
        EXPECT_EQ(nullptr, buffer);
        return u"error " + win32::ToUtf16(std::to_string(GetLastError()));
    }
    std::u16string text(buffer);
    EXPECT_EQ(text.size(), length);
    EXPECT_EQ(nullptr, LocalFree(buffer));
    return text;
}

DWORD_PTR Text(const char16_t* text) { return reinterpret_cast<DWORD_PTR>(text); }

TEST(SystemMessageTest, CodesHaveTheTextsOfWindows) {
    const std::pair<DWORD, const char16_t*> cases[] = {
        {0, u"The operation completed successfully."},
        {ERROR_EVENTLOG_FILE_CHANGED, u"The event log file has changed between read operations."},
        {193, u"%1 is not a valid Win32 application."},
        {WSAHOST_NOT_FOUND, u"No such host is known."},
        {0x80004005, u"Unspecified error"},
        {0x80070005, u"Access is denied."},
        {0x8007203A, u"The server is not operational."},
        {0x80072117, u"Name translation: Input name mapped to more than one output name."},
    };
    for (const auto& [code, text] : cases)
        EXPECT_EQ(text + std::u16string(u"\r\n"), Message(SystemText, nullptr, code, nullptr, 0x400)) << code;
    for (const DWORD unknown : {0x80005011, 0x8007FFFF, 99999u})
        EXPECT_EQ(u"error 317", Message(SystemText, nullptr, unknown)) << unknown;
}

TEST(SystemMessageTest, EveryCodeThatTheHostsErrorsBecomeHasAText) {
    std::vector<DWORD> codes{ERROR_LOG_FILE_FULL, ERROR_NONE_MAPPED, ERROR_INVALID_DATATYPE};
    for (int number = 0; number < 134; ++number) codes.push_back(win32::ErrorFromErrno(number));
    for (DWORD code = WSAEMSGSIZE; code <= WSAECONNREFUSED; ++code) codes.push_back(code);
    for (const DWORD code : codes) EXPECT_TRUE(Message(SystemText, nullptr, code).ends_with(u".\r\n")) << code;
}

TEST(MessageFormatTest, AWidthWrapsAtBlanksAndKeepsOnlyHardBreaks) {
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
    for (const auto& c : cases) {
        DWORD_PTR parameter = Text(c.parameter);
        EXPECT_EQ(c.result, Message(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY | c.width, nullptr,
                                    keldwick::MSG_START_PARAMETER, &parameter))
            << c.width;
    }
}

TEST(OwnMessageTest, EventsAreFormattedFromTheProgramsOwnTable) {
    std::vector<DWORD_PTR> inserts = {Text(u"Access is denied"), Text(u"5"), Text(u"HKEY_LOCAL_MACHINE\\SOFTWARE")};
    const DWORD flags = FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY;
    const HMODULE own = GetModuleHandleW(nullptr);
    EXPECT_EQ(
        u"Unable to create registry key \"HKEY_LOCAL_MACHINE\\SOFTWARE\"\r\n\r\nAccess is denied. "
        u"Error code = 5.\r\n\r\n",
        Message(flags, own, keldwick::MSG_CREATE_REGISTRY_KEY, inserts.data()));
    EXPECT_EQ(
        u"Unable to create registry key \"HKEY_LOCAL_MACHINE\\SOFTWARE\" \r\nAccess is denied. "
        u"Error code = 5.\r\n ",
        Message(flags | 80, own, keldwick::MSG_CREATE_REGISTRY_KEY, inserts.data()));
    EXPECT_EQ(u"Unable to create Windows Sockets event.\r\n\r\n%1. Error code = %2\r\n.\r\n",
              Message(FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_IGNORE_INSERTS, own, 0xC00001F6));
    inserts[0] = Text(nullptr);
    EXPECT_EQ(u"KDWK Service version (null) started.\r\n\r\n", Message(flags, own, 0x40000002, inserts.data()));
    EXPECT_EQ(u"error 87", Message(flags, own, 0x40000002)) << "inserts, but no arguments";
    EXPECT_EQ(u"error 317", Message(flags, own, 0x40000006, inserts.data()));
    EXPECT_EQ(u"error 1815", Message(flags, own, 0x40000002, inserts.data(), 0x0407));
    EXPECT_EQ(u"error 1813", Message(flags, GetModuleHandleW(u"ntdll.dll"), 0x40000002, inserts.data()));
    EXPECT_EQ(u"Access is denied.\r\n", Message(flags | FORMAT_MESSAGE_FROM_SYSTEM, own, 5));
}

TEST(FormatMessageTest, TheCallersBufferIsFilledOrLeftAlone) {
    WCHAR buffer[32] = u"-";
    const auto format = [](DWORD flags, LPWSTR to, DWORD units) {
        return ErrorOf(FormatMessageW(flags, nullptr, 5, 0, to, units, nullptr) == 19);
    };
    EXPECT_EQ(ERROR_INSUFFICIENT_BUFFER, format(FORMAT_MESSAGE_FROM_SYSTEM, buffer, 19));
    EXPECT_EQ(u'-', buffer[0]);
    EXPECT_EQ(ERROR_SUCCESS, format(FORMAT_MESSAGE_FROM_SYSTEM, buffer, 20));
    EXPECT_EQ(u"Access is denied.\r\n", std::u16string(buffer));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, format(0, buffer, 32));
    EXPECT_EQ(ERROR_INVALID_PARAMETER, format(FORMAT_MESSAGE_FROM_SYSTEM, nullptr, 32));
}

}  // namespace
