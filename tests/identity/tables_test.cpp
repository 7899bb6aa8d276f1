// The identity tables, against plain lists that do the same the slow way.
#include <gtest/gtest.h>

#include <list>
#include <random>

#include "identity/identity_tables.h"
#include "identity/logon_steps.h"

namespace keldwick {

namespace {

IP_ADDRESS Address(const WCHAR* text) {
    IP_ADDRESS address;
    EXPECT_TRUE(ParseAddress(address, text));
    return address;
}

// A request that holds nothing but the address, or none for an empty text.
void GiveAddress(LOGON_ENTRY* entry, const WCHAR* text) {
    if (*text == 0) return;
    const IP_ADDRESS address = Address(text);
    const BYTE version = AddressVersion(address);
    ASSERT_TRUE(entry->request.request.Resize(1 + AddressLength(address)));
    entry->request.request.Data()[0] = version;
    std::copy_n(AddressBytes(address), AddressLength(address), entry->request.request.Data() + 1);
    entry->request.addressPosition = 0;
}

LOGON_ENTRY* Add(LOGON_TABLE& table, const WCHAR* address) {
    LOGON_ENTRY* const entry = table.Append();
    GiveAddress(entry, address);
    table.Index(entry);
    return entry;
}

// Adds and removes at random among few addresses, so that many are held twice, and compares every answer.
TEST(LogonTableTest, TheFirstInInsertionOrderIsFoundAfterAnyChange) {
    std::minstd_rand random(1);
    const WCHAR* const addresses[] = {u"10.0.0.1", u"10.0.0.2", u"a00:1::", u"fe80::1", u""};
    LOGON_TABLE table;
    std::list<std::pair<const WCHAR*, LOGON_ENTRY*>> reference;
    for (int step = 0; step < 20000; ++step) {
        const WCHAR* const address = addresses[random() % std::size(addresses)];
        if (reference.size() < 40 && random() % 2 == 0) {
            reference.emplace_back(address, Add(table, address));
        } else if (!reference.empty()) {
            const auto removed = std::next(reference.begin(), static_cast<long>(random() % reference.size()));
            table.Remove(removed->second);
            reference.erase(removed);
        }
        ASSERT_EQ(reference.size(), table.Count());
        const LOGON_ENTRY* listed = table.First();
        for (const auto& [wanted, entry] : reference) {
            ASSERT_EQ(entry, listed);
            listed = LOGON_TABLE::Next(listed);
        }
        ASSERT_EQ(nullptr, listed);
        if (*address == 0) continue;
        const auto first =
            std::find_if(reference.begin(), reference.end(), [&](const auto& held) { return held.first == address; });
        ASSERT_EQ(first == reference.end() ? nullptr : first->second, table.Find(Address(address))) << step;
    }
}

TEST(ServiceTicketTableTest, TheOldestTicketIsFoundIgnoringCase) {
    SERVICE_TICKET_TABLE table;
    SERVICE_TICKET_ENTRY* const first = table.Append(STRING(u"CORP\\Jürgen"), STRING(u"CORP\\A"), u"fe80::AB");
    SERVICE_TICKET_ENTRY* const second = table.Append(STRING(u"CORP\\JÜRGEN"), STRING(u"CORP\\B"), u"FE80::ab");
    table.Append(STRING(u"CORP\\Jurgen"), STRING(u"CORP\\C"), u"fe80::ab");
    EXPECT_EQ(first, table.Find(u"corp\\jürgen", u"fe80::ab"));
    EXPECT_EQ(nullptr, table.Find(u"corp\\jürgen", u"fe80::ac"));
    EXPECT_EQ(nullptr, table.Find(u"fe80::ab", u"corp\\jürgen"));
    table.Remove(first);
    EXPECT_EQ(second, table.Find(u"corp\\jürgen", u"fe80::ab"));
}

TEST(LogonTypesTest, ATypesTextIsReadAsTheCLibraryReadsNumbers) {
    const auto Parsed = [](const WCHAR* text) -> int64_t {
        DWORD type = 1;
        return ParseLogonType(text, type) ? int64_t{type} : -1;
    };
    EXPECT_EQ(0, Parsed(u""));
    EXPECT_EQ(2, Parsed(u"-4294967294"));
    for (const WCHAR* text : {u"3", u"0x3", u" 3"}) EXPECT_EQ(3, Parsed(text));
    EXPECT_EQ(10, Parsed(u"\t+10"));
    EXPECT_EQ(12, Parsed(u"012"));
    EXPECT_EQ(255, Parsed(u"0XfF"));
    for (const WCHAR* text : {u"-1", u"4294967295", u"4294967298", u"99999999999999999999999"})
        EXPECT_EQ(MAXDWORD, Parsed(text)) << STRING_UTF8(text).Text();
    for (const WCHAR* text : {u"3a", u"3 ", u"0x", u"0xg", u" 0x3", u"-", u" ", u"x", u"\xFF13", u"0x-3"})
        EXPECT_EQ(-1, Parsed(text)) << STRING_UTF8(text).Text();
    for (DWORD type = 0; type < 300; ++type) EXPECT_EQ(((type - 2) & ~9u) == 0, IsPersonalLogonType(type)) << type;
}

}  // namespace

}  // namespace keldwick
