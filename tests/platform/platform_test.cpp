// Texts, numbers in them, error texts, the buffer, registry values, addresses and names of hosts.
#include <climits>
#include <cstring>

#include "platform/error_text.h"
#include "platform/format.h"
#include "platform/heap_buffer.h"
#include "platform/host_names.h"
#include "platform/line_buffer.h"
#include "tests/support/agent.h"

namespace keldwick {
namespace {

// In a string, and straight to UTF-8.
TEST(Format, EveryConventionOfTheMessages) {
    const std::tuple<const WCHAR*, std::vector<FORMAT_ARGUMENT>, std::string> cases[] = {
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
         "1.00\xE2\x82\xAC"}};
    for (const auto& [format, arguments, expected] : cases) {
        STRING text(TEXT("what was there before"));
        text.FormatV(format, arguments);
        EXPECT_EQ(expected, Narrow(text));
        LINE_BUFFER line;
        line.Append("<");
        line.AppendFormat(format, arguments);
        line.Append(">");
        EXPECT_EQ("<" + expected + ">", line.View());
    }
    EXPECT_EQ("10% of 20, 30", Narrow(FormatString(TEXT("%lu%% of %lu, %lu"), 10, 20, 30)));
    EXPECT_EQ("10 of 20!", Narrow(FormatString(TEXT("%lu of %s!"), 10, TEXT("20"))));
    for (size_t at = 0; at <= 20; ++at) {  // one letter that is not ASCII, or none, in a long text or a short one
        std::u16string text(at % 2 == 0 ? 20 : 7, 'a');
        if (at < text.size()) text[at] = 0xE9;
        LINE_BUFFER line;
        line.AppendWide(text);
        EXPECT_EQ(Narrow(text.c_str()), line.View());
    }
}

TEST(String, DigitsAreReadUpToTheFirstOtherUnit) {
    const std::tuple<const WCHAR*, DWORD, ULONGLONG, const char*> cases[] = {
        {TEXT("12ab"), 10, 12, "ab"},
        {TEXT("aBg"), 16, 0xAB, "g"},
        {TEXT("-1"), 10, 0, "-1"},
        {TEXT("4294967295"), 10, MAXDWORD, ""},
        {TEXT("99999999999999999999999 "), 10, 1ull << 32, " "}};
    for (const auto& [text, base, number, rest] : cases) {
        ULONGLONG read = 7;
        EXPECT_EQ(rest, Narrow(ReadDigits(text, base, read)));
        EXPECT_EQ(number, read);
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
    EXPECT_EQ("Not 100%s. Access is denied. Error code = 5.", Narrow(FormatError(5, TEXT("Not %s"), name)));
    EXPECT_EQ("Not 100%s.\n    Access is denied. Error code = 5.", Narrow(FormatError(5, TEXT("Not %s.\n    "), name)));
    const auto no = [](ERROR_CODE error) { return Narrow(FormatError(error, TEXT("No"))); };
    const auto directory = [](DWORD code) { return ERROR_CODE::FromDirectory(static_cast<HRESULT>(code)); };
    EXPECT_EQ("No. Access is denied. Error code = 0x5.", no({5, ERROR_CODE::FORM::HEXADECIMAL}));
    EXPECT_EQ("No. Bad pathname. Error code = 0x80005000.", no(directory(0x80005000)));
    EXPECT_EQ("No. Unknown Active Directory error. Error code = 0x80005f12.", no(directory(0x80005F12)));
}

TEST(RegistryValues, NumbersHaveFourBytesAndTextsAnyEnd) {
    const TEMPORARY_ROOT root;
    REG_KEY key;
    RegCreateKeyExW(HKEY_LOCAL_MACHINE, TEXT("SOFTWARE\\Test"), 0, nullptr, 0, KEY_ALL_ACCESS, nullptr, key.Put(),
                    nullptr);
    const struct {
        DWORD type, bytes, error;  // as a number
        const char* text;          // null: none
    } cases[] = {{REG_DWORD, 4, 0, nullptr},        {REG_DWORD, 2, 1804, nullptr}, {REG_DWORD, 8, 234, nullptr},
                 {REG_BINARY, 4, 1804, nullptr},    {REG_SZ, 6, 1804, "ab"},       {REG_SZ, 9, 1804, "abcd"},
                 {REG_EXPAND_SZ, 10, 1804, "abcd"}, {REG_SZ, 1, 1804, ""},         {REG_SZ, 0, 1804, ""}};
    for (const auto& c : cases) {
        SCOPED_TRACE(std::to_string(c.type) + " of " + std::to_string(c.bytes));
        const auto* const bytes = reinterpret_cast<const BYTE*>(TEXT("abcd"));
        ASSERT_EQ(0, RegSetValueExW(key.Get(), TEXT("V"), 0, c.type, bytes, c.bytes));
        DWORD number = 7;
        EXPECT_EQ(c.error, RegGetDword(key.Get(), TEXT("V"), number) ? 0 : GetLastError());
        EXPECT_EQ(c.error == 0 ? 0x620061u : 7u, number);
        STRING text(TEXT("old"));
        EXPECT_EQ(c.text != nullptr, RegGetString(key.Get(), TEXT("V"), text));
        EXPECT_STREQ(c.text != nullptr ? c.text : "old", Narrow(text.Text()).c_str());
        EXPECT_EQ(0, text.Text()[text.Length()]);
    }
}

TEST(IpAddress, TextsAndWhatTheyMean) {
    // bytes: in hexadecimal; empty: no address
    const auto check = [](const WCHAR* given, const std::string& bytes, bool loopback = false) {
        SCOPED_TRACE(Narrow(given));
        IP_ADDRESS address;
        const bool valid = !bytes.empty();
        EXPECT_EQ(valid, ParseAddress(address, given));
        EXPECT_EQ(bytes.size() == 32 ? 6 : valid ? 4 : 0, AddressVersion(address));
        EXPECT_EQ(bytes.size() / 2, AddressLength(address));
        EXPECT_EQ(loopback, IsLoopback(address));
        EXPECT_EQ(valid, AddressBytes(address) != nullptr);
        STRING hex, text;
        hex.HexText(AddressBytes(address), AddressLength(address), false, 0, ' ');
        EXPECT_EQ(bytes, Narrow(hex));
        if (!valid) return;
        EXPECT_TRUE(AddressToText(address.SocketAddress(), address.SocketAddressLength(), text));
        EXPECT_EQ(Narrow(given), Narrow(text));
    };
    check(u"10.0.0.5", "0A000005");
    check(u"127.0.0.1", "7F000001", true);
    check(u"127.0.0.2", "7F000002");
    check(u"::1", "00000000000000000000000000000001", true);
    check(u"fe80::1", "FE800000000000000000000000000001");
    check(u"::ffff:10.0.0.5", "00000000000000000000FFFF0A000005");
    for (const WCHAR* const none : {u"-", u"", u"10.0.0.256", u"10.0.0.5 ", u"10.0.0.08", u"4294967296", u"::g",
                                    u"1::2::3", u"[::1", u"fe80::1%eth0"})
        check(none, "");
}

TEST(LocalHost, TheFirstAddressOfEachFamilyButTheLoopbackWins) {
    const DEBUG_LINES lines;
    NameServer().addresses[""] = {"127.0.0.1", "::1", "fe80::7", "192.0.2.9", "2001:db8::1", "10.1.1.1"};
    LoadLocalHostInfo();
    NameServer().addresses.erase("");
    EXPECT_EQ("192.0.2.9 fe80::7", Narrow(LocalHostInfo.ipV4) + " " + Narrow(LocalHostInfo.ipV6));
    LocalHostInfo = {};
}

TEST(NameLookup, AStopEndsTheWaitAndNothingIsAskedAfterIt) {
    const HANDLE_OWNER stop(CreateEventW(nullptr, TRUE, FALSE, nullptr));
    IP_ADDRESS address;
    ASSERT_TRUE(ParseAddress(address, TEXT("10.0.0.5")));
    STRING name(TEXT("kept"));
    NameServer().Die();
    std::thread stopper([&] {
        NameServer().AwaitQuestions(1);
        SetEvent(stop.Get());
    });
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(LookupHostName(address.SocketAddress(), address.SocketAddressLength(), name, stop.Get()));
        EXPECT_EQ(ERROR_CANCELLED, GetLastError());
    }
    EXPECT_EQ("kept", Narrow(name));
    EXPECT_EQ(1, NameServer().questions);
    stopper.join();
    NameServer().Revive(1);
}

}  // namespace
}  // namespace keldwick
