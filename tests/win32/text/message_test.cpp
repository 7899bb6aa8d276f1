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

std::u16string Formatted(const char16_t* text, DWORD flags, std::vector<DWORD_PTR> arguments) {
    return Message(FORMAT_MESSAGE_FROM_STRING | FORMAT_MESSAGE_ARGUMENT_ARRAY | flags, text, 0,
                   arguments.empty() ? nullptr : arguments.data());
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
    std::vector<DWORD> codes{ERROR_FILE_CORRUPT, ERROR_LOG_FILE_FULL, ERROR_NONE_MAPPED, ERROR_INVALID_DATATYPE};
    for (int number = 0; number < 134; ++number) codes.push_back(win32::ErrorFromErrno(number));
    for (DWORD code = WSAEMSGSIZE; code <= WSAECONNREFUSED; ++code) codes.push_back(code);
    for (const DWORD code : codes) EXPECT_TRUE(Message(SystemText, nullptr, code).ends_with(u".\r\n")) << code;
}

TEST(MessageFormatTest, InsertsAndEscapesAreReplaced) {
    const auto formatted = [](const char16_t* text) {
        return Formatted(text, 0, {Text(u"anna"), Text(u"%1%n"), 42, 0, 0, 0, 0, 0, 0, Text(u"ten")});
    };
    const std::pair<const char16_t*, const char16_t*> cases[] = {
        {u"no inserts", u"no inserts"},
        {u"%1 and %2", u"anna and %1%n"},
        {u"%2%1%1", u"%1%nannaanna"},
        {u"%10", u"ten"},
        {u"a%nb%rb%tc%bd% e", u"a\r\nb\rb\tc d e"},
        {u"100%% %. %!", u"100% . !"},
        {u"line%0 never seen", u"line"},
        {u"[%3!5u!] [%3!-5d!] [%3!08lX!] [%3!#x!]", u"[   42] [42   ] [0000002A] [0x2a]"},
        {u"%1!s! %4", u"anna (null)"},
    };
    for (const auto& [text, result] : cases) EXPECT_EQ(result, formatted(text)) << win32::ToUtf8(text);
    for (const char16_t* broken : {u"broken %", u"%1!s", u"%3!n!", u"%3!*d!", u"%3!999999999999d!"})
        EXPECT_EQ(u"error 87", formatted(broken)) << win32::ToUtf8(broken);
    EXPECT_EQ(u"error 87", Formatted(u"%1", 0, {}));
    EXPECT_EQ(u"%1 %2!u! a\r\n%%", Formatted(u"%1 %2!u! a%n%%", FORMAT_MESSAGE_IGNORE_INSERTS, {}));
}

TEST(MessageFormatTest, AWidthWrapsAtBlanksAndKeepsOnlyHardBreaks) {
    const struct {
        DWORD width;
        const char16_t *text, *result;
    } cases[] = {
        {0, u"a\r\nb", u"a\r\nb"},
        {255, u"a\r\nb\nc%nd", u"a b c\r\nd"},
        {10, u"12345 7890 2345", u"12345 7890\r\n2345"},
        {10, u"12345 78901 345", u"12345\r\n78901 345"},
        {10, u"12345678901", u"1234567890\r\n1"},
        {10, u"123%n4567 90123", u"123\r\n4567 90123"},
        {10, u"%1 %1", u"abcdefg\r\nabcdefg"},
    };
    for (const auto& c : cases) EXPECT_EQ(c.result, Formatted(c.text, c.width, {Text(u"abcdefg")})) << c.width;
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
