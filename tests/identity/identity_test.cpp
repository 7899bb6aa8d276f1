// What each event leads to: reports, identities, the list of them for others, and the tables that hold them.
#include <list>
#include <random>

#include "identity/identities.h"
#include "identity/logon_steps.h"
#include "tests/support/agent.h"
#include "tests/support/event_strings.h"

namespace keldwick {
namespace {

using testing::ElementsAre;

class EVENTS : public AGENT {
protected:
    EVENTS() { Serve(); }
    void MakeAccounts() const {
        MakeDirectory(
            "dn: CN=A,DC=corp|sAMAccountName: ann\ndn: CN=P,DC=corp|sAMAccountName: PC9$\n"
            "dn: CN=D,DC=corp|sAMAccountName: dc1$\n");
    }
    void WriteAt(const std::string& time, DWORD id, const STRINGS& strings, const CHANGES& changes = {}) {
        At(time, [=, this] { Write({Event(id, With(strings, changes))}); });
    }
    void NoteStatisticsAt(const std::string& time) {
        At(time, [this] { statistics.push_back(Statistics()); });
    }
    void RunUntil(const std::string& end, const std::string& settings = "") {
        Run("IdentServer=" + Server() + " IdentProtocol=dword:2 " + settings, end);
    }
    LINES statistics;
};

// Beside what is recorded in tests/loop.
TEST_F(EVENTS, OnlyAUsersOwnRemoteLogonIsReported) {
    MakeAccounts();
    const auto drop = [this](DWORD id, const STRINGS& strings, const std::vector<CHANGES>& variants = {{}}) {
        for (const CHANGES& changes : variants) WriteAt("08:00:50", id, strings, changes);
    };
    drop(4624, STRINGS(19));
    drop(4624, Logon4624, {{{8, u""}}});
    drop(4634, Logoff4634, {{}, {{4, u"x"}}, {{0, u"S-1-5-7"}}});
    drop(528, STRINGS(14));
    drop(528, Logon528, {{{3, u"?"}}, {{13, u"x"}}, {{13, u"127.0.0.1"}}});
    drop(538, Logoff538, {{}, {{0, u"PC$"}}, {{3, u"-"}}, {{3, u"11"}}});
    drop(540, STRINGS(14));
    drop(540, Logon540, {{{0, u"PC$"}}, {{3, u"0x"}}, {{0, u""}, {1, u""}}, {{13, u"-"}}});
    drop(673, STRINGS(7));
    drop(673, Ticket673,
         {{{7, u"0x1B"}}, {{2, u"krbtgt"}}, {{2, u"dc1$"}}, {{0, u"bob@CORP.EXAMPLE"}}, {{2, u"PC8$"}}});
    NoteStatisticsAt("08:01:16");
    for (const WCHAR* const type : {u"2", u"0x3", u"10", u"11"})
        WriteAt("08:01:20", 4624, Logon4624,
                {{0, u"s-1-0-0"}, {8, type}, {18, u"fe80::" + std::u16string(1, std::u16string(type).back())}});
    RunUntil("08:01:30");
    EXPECT_THAT(statistics, ElementsAre("0 0"));
    EXPECT_EQ(4u, reports.size()) << testing::PrintToString(reports);
}

TEST_F(EVENTS, ARepeatedLogonOnlyRenewsAndAnotherUserReplaces) {
    WriteAt("08:01:00", 4624, Logon4624);
    WriteAt("08:05:00", 4624, Logon4624, {{5, u"ANN"}});
    WriteAt("08:05:00", 540, Logon540);
    WriteAt("08:09:00", 4624, Logon4624, {{5, u"bob"}, {11, u""}});
    for (int i = 0; i < 2; ++i) WriteAt("08:10:00", 528, Logon528, {{6, u"-"}, {13, u"10.0.0.6"}});
    for (int i = 0; i < 2; ++i) WriteAt("08:11:00", 4624, Logon4624, {{6, u"CORP.LOCAL"}, {18, u"10.0.0.7"}});
    NoteStatisticsAt("08:12:00");
    RunUntil("08:12:10", "LogonTTL=dword:5");
    const std::string annThere = "CORP\\ann on CORP\\PC1 at 10.0.0.", local = "CORP\\ann on CORP\\- at 10.0.0.6";
    EXPECT_THAT(reports, ElementsAre("08:01:00 logon " + annThere + "5", "08:09:00 logoff " + annThere + "5",
                                     "08:09:00 logon CORP\\bob at 10.0.0.5", "08:10:00 logon " + local,
                                     "08:10:00 logon " + local, "08:11:00 logon " + annThere + "7",
                                     "08:11:00 logoff " + annThere + "7", "08:11:00 logon " + annThere + "7"));
    EXPECT_THAT(statistics, ElementsAre("4 0"));
}

TEST_F(EVENTS, AComputerThatIsNotNamedIsLookedUpByItsAddress) {
    NameServer().name = u"pc7.corp.example";
    WriteAt("08:01:00", 4624, Logon4624, {{11, u"-"}, {18, u"fe80::7"}});
    At("08:02:00", [] { NameServer().name.clear(); });
    WriteAt("08:03:00", 4624, Logon4624, {{11, u""}, {18, u"fe80::8"}});
    RunUntil("08:03:10");
    EXPECT_THAT(reports,
                ElementsAre("08:01:00 logon CORP\\ann on CORP\\pc7 at fe80::7", "08:03:00 logon CORP\\ann at fe80::8"));
}

TEST_F(EVENTS, ATicketNamesTheComputerOfTheLogonAfterItOnce) {
    MakeAccounts();
    AnswerEach(0, [this](const std::string& request) {
        return reports.size() == 1 ? "" : SCRIPTED_SERVER::GoodAnswer(request);
    });
    for (int i = 0; i < 2; ++i) WriteAt("08:01:00", 673, Ticket673);
    WriteAt("08:01:00", 540, Logon540, {{0, u"ANN"}});  // not taken: it is forgotten, the ticket stays
    WriteAt("08:01:30", 540, Logon540);
    WriteAt("08:01:30", 540, Logon540, {{13, u"127.0.0.1"}});
    WriteAt("08:02:00", 540, Logon540, {{0, u"bob"}});
    WriteAt("08:02:10", 540, Logon540);
    NoteStatisticsAt("08:01:40");
    RunUntil("08:02:20");
    const std::string there = " (CN=A,DC=corp) on CORP\\PC9 (CN=P,DC=corp) at 10.0.0.5";
    const std::string ann = "CORP\\ann (CN=A,DC=corp) at ", bobThere = "CORP\\bob at 10.0.0.5";
    EXPECT_THAT(reports, ElementsAre("08:01:00 logon CORP\\ANN" + there, "08:01:30 logon CORP\\ann" + there,
                                     "08:01:30 logon " + ann + "127.0.0.1", "08:02:00 logoff CORP\\ann" + there,
                                     "08:02:00 logon " + bobThere, "08:02:10 logoff " + bobThere,
                                     "08:02:10 logon " + ann + "10.0.0.5"));
    EXPECT_THAT(statistics, ElementsAre("0 1"));
    const LINES written = lines.Take();
    EXPECT_EQ(1, std::count_if(written.begin(), written.end(), [](const std::string& line) {
                  return line.starts_with("\nDo_EVENT_SERVICE_TICKET: CREATED");
              }));
}

TEST_F(EVENTS, AClockSetBackExpiresEverything) {
    WriteAt("08:30:00", 4624, Logon4624);
    NoteStatisticsAt("08:31:30");
    WriteAt("08:31:40", 673, Ticket673);
    At("08:31:40", [this] {
        clock.Set(clock.Now() - 600 * VIRTUAL_CLOCK::Second);
        WriteAt("08:22:00", 4634, Logoff4634);  // its wait is to end at a time that was before
        NoteStatisticsAt("08:22:50");
    });
    RunUntil("08:31:40");
    EXPECT_THAT(statistics, ElementsAre("1 0", "0 0"));
}

// ---- The list for others ----

class IDENTITY_LIST : public AGENT {
protected:
    // The file lists so many identities.
    void ExpectListed(int count) const {
        EXPECT_THAT(root.Read("Keldwick.identities"), testing::HasSubstr("\"identities\":" + std::to_string(count)));
    }
    // It is written without delay, and then lists so many.
    void ExpectWritten(int count) {
        EXPECT_EQ(INFINITE, identities.UpdateFile());
        ExpectListed(count);
    }
    void Advance(VIRTUAL_CLOCK::TIME seconds) { clock.Set(clock.Now() + seconds * VIRTUAL_CLOCK::Second); }
    IDENTITIES identities;
};

TEST_F(IDENTITY_LIST, CostsAHundredthOfTheTimeAndMissesNoChange) {
    ExpectWritten(0);
    identities.Logons().Append();
    Advance(60);
    clock.perLook = VIRTUAL_CLOCK::Second / 50;  // writing takes so long
    ExpectWritten(1);
    identities.Logons().Append();
    const DWORD due = identities.UpdateFile();
    EXPECT_TRUE(due > 1000 && due <= 2001) << due;
    ExpectListed(1);
    Advance(3);
    ExpectWritten(2);
    identities.Logons().Append();
    Advance(-600);  // the clock was set back
    ExpectWritten(3);
    identities.Clear();
    ExpectListed(0);
}

TEST_F(IDENTITY_LIST, GrowsOlderRatherThanWriteMoreBytes) {
    constexpr uintmax_t seconds = 180, bytesASecond = 32768;
    const std::filesystem::path file = root.Path("Keldwick.identities");
    LOGON_TABLE& logons = identities.Logons();
    uintmax_t bytes = 0, writes = 0, size = 0;
    const auto followWhile = [&](const std::function<void()>& change) {
        bytes = writes = 0;
        for (uintmax_t i = 0; i < seconds; ++i, Advance(1)) {
            change();
            identities.UpdateFile();
            if (!std::filesystem::exists(file)) continue;
            bytes += size = std::filesystem::file_size(file);
            ++writes;
            std::filesystem::remove(file);
        }
    };
    const auto replace = [&] { logons.Remove(logons.First()), logons.Append(); };
    IP_ADDRESS address;
    const STRING user(u"CORP\\ann");
    ASSERT_TRUE(ParseAddress(address, u"10.0.0.1"));
    const auto renew = [&] { EXPECT_TRUE(logons.Renew(address, user)); };
    while (logons.Count() < 999) logons.Append();
    LOGON_ENTRY* const entry = logons.Append();
    ASSERT_TRUE(entry->request.Encode(address, {user, {}, {}}, {}, {}));
    logons.Index(entry);
    followWhile(renew);
    ASSERT_EQ(seconds / 60, writes);  // who is where has not changed
    followWhile(replace);
    ASSERT_LE(bytes, seconds * bytesASecond + size);
    EXPECT_GE(bytes, seconds * bytesASecond / 2);  // and no older than that
    // More than a minute's worth: this holds for the file that only says that it is right, too.
    while (logons.Count() < 81000) logons.Append();
    followWhile(renew);
    EXPECT_LE(bytes, seconds * bytesASecond + size);
    EXPECT_GE(writes, 1u);
}

// ---- The tables ----

IP_ADDRESS Address(const std::u16string& text) {
    IP_ADDRESS address;
    EXPECT_TRUE(ParseAddress(address, text.c_str()));
    return address;
}

// A table beside a plain list of what it holds.
class LOGONS : public AGENT {
protected:
    struct HELD {
        std::u16string address, user;
        LOGON_ENTRY* entry;
        VIRTUAL_CLOCK::TIME logon;
    };

    // As a report leaves it; without an address nothing was encoded.
    void Add(const std::u16string& address, const std::u16string& user) {
        LOGON_ENTRY* const entry = table->Append();
        if (!address.empty()) {
            EXPECT_TRUE(entry->request.Encode(Address(address), {STRING(user.c_str()), {}, {}}, {}, {}));
        }
        table->Index(entry);
        held.push_back({address, user, entry, clock.Now()});
    }
    std::list<HELD>::iterator FirstAt(const std::u16string& address) {
        return std::find_if(held.begin(), held.end(), [&](const HELD& each) { return each.address == address; });
    }
    void ExpectFound(const std::u16string& address) {
        if (address.empty()) return;
        const auto first = FirstAt(address);
        ASSERT_EQ(first == held.end() ? nullptr : first->entry, table->Find(Address(address)));
    }
    // In the order in which they came, each with its time.
    void ExpectAll() const {
        ASSERT_EQ(held.size(), table->Count());
        const LOGON_ENTRY* listed = table->First();
        for (const HELD& each : held) {
            ASSERT_EQ(each.entry, listed);
            ASSERT_EQ(each.logon, listed->logonTime.Units());
            listed = LOGON_TABLE::Next(listed);
        }
        ASSERT_EQ(nullptr, listed);
    }

    std::unique_ptr<LOGON_TABLE> table = std::make_unique<LOGON_TABLE>();
    std::list<HELD> held;
};

// Among so few addresses that many are held twice, in tables that are nearly full and in some that grow. Where an
// address has its place differs from table to table.
TEST_F(LOGONS, TheFirstInInsertionOrderIsFoundAndRenewedAfterAnyChange) {
    std::minstd_rand random(1);
    const std::u16string users[] = {u"CORP\\ann", u"CORP\\J\u00fcrgen", u"CORP\\\u0141ukasz", u""};
    std::vector<std::u16string> addresses = {u""};
    for (int i = 0; i < 80; ++i) {
        const std::string number = std::to_string(i);
        const std::u16string wide(number.begin(), number.end());
        addresses.insert(addresses.end(), {u"10.0.0." + wide, u"a00:" + wide + u"::", u"fe80::" + wide});
    }
    for (int step = 0; step < 36000; ++step) {
        SCOPED_TRACE(step);
        if (step % 2000 == 0) table = std::make_unique<LOGON_TABLE>(), held.clear();
        const size_t count = step % 6000 < 4000 ? 48 : addresses.size();
        const std::u16string& address = addresses[random() % count];
        const std::u16string& user = users[random() % std::size(users)];
        clock.Set(clock.Now() + 1);
        if (random() % 2 == 0 && !address.empty()) {
            const auto known = FirstAt(address);
            const bool same = known != held.end() && known->user == user;
            ASSERT_EQ(same, table->Renew(Address(address), STRING(user.c_str())));
            if (same) known->logon = clock.Now();
        } else if (held.empty() || random() % (4 * count) > held.size()) {
            Add(address, user);
        } else {
            const auto removed = std::next(held.begin(), static_cast<long>(random() % held.size()));
            const std::u16string freed = removed->address;
            table->Remove(removed->entry);
            held.erase(removed);
            ExpectFound(freed);
        }
        ExpectFound(address);
        if (step % 100 == 0) {
            ExpectAll();
            for (const std::u16string& each : addresses) ExpectFound(each);
        }
        if (step % 2000 == 1500) table->Clear(), held.clear();
    }
}

TEST_F(LOGONS, AUserIsTheSameWhateverTheNamesCaseLengthAndLetters) {
    const std::u16string a29(29, u'a'), a30(30, u'a'), a255(255, u'a'), a300(300, u'a');
    const struct {
        std::u16string held, asked;
        bool same;
    } cases[] = {{u"CORP\\Ann", u"CORP\\Ann", true},
                 {u"CORP\\Ann", u"corp\\aNN", true},
                 {u"CORP\\Ann", u"CORP\\Anna", false},
                 {u"CORP\\Ann", u"CORP\\An", false},
                 {u"CORP\\Ann", u"", false},
                 {u"", u"", true},
                 {u"J\u00fcrgen", u"J\u00fcrgen", true},
                 {u"J\u00fcrgen", u"J\u00dcRGEN", true},
                 {u"J\u00fcrgen", u"J\u01fcrgen", false},  // as low bytes these are alike
                 {u"\u01fc", u"\u00fc", false},
                 {u"\u0141ukasz", u"\u0142ukasz", true},
                 {a30, a30, true},
                 {a29, a30, false},
                 {a30, a30 + u"b", false},
                 {a30 + u"b", a30 + u"b", true},
                 {a30 + u"b", a30 + u"c", false},
                 {a255, a255, true},
                 {a255, std::u16string(255, u'b'), false},
                 {a300, a300, true},
                 {a300, a300.substr(256), false}};  // nor by a length's low byte
    for (const auto& c : cases) {
        SCOPED_TRACE(&c - cases);
        Add(u"10.0.0.1", c.held);
        EXPECT_EQ(c.same, table->Renew(Address(u"10.0.0.1"), STRING(c.asked.c_str())));
        table->Clear();
    }
}

// Else a look-up would walk over many: over its row of neighbours, which has some 2.6 at this load.
TEST(LogonIndexTest, AddressesThatDifferLittleLieApart) {
    constexpr int count = 50000, most = 4;
    const std::pair<BYTE, int> counters[] = {{4, 3}, {4, 1}, {6, 15}, {6, 8}, {6, 5}};  // version, the byte that counts
    for (const auto& [version, low] : counters) {
        SCOPED_TRACE(low);
        LOGON_INDEX index;
        LOGON_ENTRY entry;
        for (int i = 0; i < count; ++i) {
            BYTE bytes[16] = {10, 0, 0, 1};
            bytes[low] = static_cast<BYTE>(i);
            bytes[low - 1] = static_cast<BYTE>(i >> 8);
            index.Put({version, bytes}, &entry, STRING());
        }
        const LOGON_INDEX::SLOT* last = nullptr;
        int slots = 0;
        LONGLONG row = 0, squares = 0;
        index.ForEach([&](const LOGON_INDEX::SLOT& slot) {
            row = last != nullptr && &slot == last + 1 ? row + 1 : 1;
            squares += 2 * row - 1;
            last = &slot;
            ++slots;
        });
        EXPECT_EQ(count, slots);
        EXPECT_LT(squares, most * count);
    }
}

TEST(LogonIndexTest, GrowsOnlyForAnAddressThatFindsNoPlace) {
    LOGON_INDEX index;
    LOGON_ENTRY first, second;
    const auto address = [](int i) {
        const BYTE bytes[] = {10, 0, static_cast<BYTE>(i >> 8), static_cast<BYTE>(i)};
        return STORED_ADDRESS(4, bytes);
    };
    const int most = 48;  // of 64 places
    index.Put(address(0), &first, STRING());
    const LOGON_INDEX::SLOT* const held = index.Find(address(0));
    for (int i = 1; i < 5000; ++i) {
        index.Put(address(i), &first, STRING());
        index.Remove(address(i));
    }
    EXPECT_EQ(held, index.Find(address(0)));  // it has its own place, which it leaves with the table alone
    for (int i = 1; i < most; ++i) index.Put(address(i), &first, STRING());
    EXPECT_EQ(held, index.Find(address(0)));
    index.Put(address(0), &second, STRING());
    EXPECT_EQ(held, index.Find(address(0)));
    EXPECT_EQ(&second, held->entry);
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
    const std::pair<int64_t, std::vector<const WCHAR*>> cases[] = {
        {0, {u""}},
        {2, {u"-4294967294"}},
        {3, {u"3", u"0x3", u" 3"}},
        {10, {u"\t+10"}},
        {12, {u"012"}},
        {255, {u"0XfF"}},
        {MAXDWORD, {u"-1", u"4294967295", u"4294967298", u"99999999999999999999999"}},
        {-1, {u"3a", u"3 ", u"0x", u"0xg", u" 0x3", u"-", u" ", u"x", u"\xFF13", u"0x-3"}}};
    for (const auto& [expected, texts] : cases)
        for (const WCHAR* const text : texts) {
            DWORD type = 1;
            EXPECT_EQ(expected, ParseLogonType(text, type) ? int64_t{type} : -1) << STRING_UTF8(text).Text();
        }
    for (DWORD type = 0; type < 300; ++type) EXPECT_EQ(((type - 2) & ~9u) == 0, IsPersonalLogonType(type)) << type;
}

}  // namespace
}  // namespace keldwick
