// Directory exports, and the texts of a directory: DNs, filters, paths, SIDs.
#include "win32/directory/directory_text.h"
#include "win32/directory/ldif_file.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

using namespace win32;

namespace {

constexpr std::string_view ZeroByte("\0", 1);

TEST(Ldif, ReadsWhatTheExportingToolsWrite) {
    struct CASE {
        const char* name;
        std::string file;
        std::vector<std::string> wanted;  // DN, then the values of "v"
    };
    const CASE cases[] = {
        {"plain", "dn: CN=a\nv: 1\nV: 2\n", {"CN=a", "1", "2"}},
        {"no line break at the end", "dn: CN=a\nv: 1", {"CN=a", "1"}},
        {"version and entry without a gap, CR LF", "version: 1\r\ndn: CN=a\r\nv: 1\r\n\r\n", {"CN=a", "1"}},
        {"folded, also within the name", "dn: CN=\n a\nv\n : 1\n 2\n", {"CN=a", "12"}},
        {"a folded comment hides no line", "# x\n y\ndn: CN=a\n#z\nv: 1\n", {"CN=a", "1"}},
        {"base64", "dn:: Q049w6Q=\nv:: AAH/\nv::QQ==\n", {"CN=\xC3\xA4", std::string("\0\x01\xFF", 3), "A"}},
        {"empty value", "dn: CN=a\nv:\nv: \n", {"CN=a", "", ""}},
        {"option", "dn: CN=a\nv;range=0-1: 1\n", {"CN=a", "1"}},
        {"an added entry", "dn: CN=a\nchangetype: add\nv: 1\n", {"CN=a", "1"}},
        {"closing lines of a search",
         "dn: CN=a\nv: 1\n\nref: ldap://x\n\nsearch: 2\nresult: 0 Success\n",
         {"CN=a", "1"}},
        {"UTF-8 mark",
         "\xEF\xBB\xBF"
         "dn: CN=a\nv: 1\n",
         {"CN=a", "1"}},
        {"UTF-16",
         std::string("\xFF\xFE"
                     "d\0n\0:\0 \0C\0N\0=\0\xE4\0\n\0v\0:\0"
                     "1\0",
                     26),
         {"CN=\xC3\xA4", "1"}},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        LDIF_ERROR error;
        const auto data = LDIF_DATA::Parse(c.file, error);
        ASSERT_TRUE(data) << error.line << ": " << error.reason;
        ASSERT_EQ(1u, data->Entries().size());
        std::vector<std::string> got{data->Entries()[0].dn};
        const auto* values = data->Entries()[0].Values("V");
        ASSERT_NE(nullptr, values);
        got.insert(got.end(), values->begin(), values->end());
        EXPECT_EQ(c.wanted, got);
    }
}

TEST(Ldif, NamesTheLineThatItCannotRead) {
    struct CASE {
        const char* name;
        std::string file;
        size_t line;
    };
    const CASE cases[] = {
        {"no colon", "dn: CN=a\n\n# x\nv\n", 4},
        {"no name", "dn: CN=a\n: x\n", 2},
        {"attribute before the DN", "v: 1\ndn: CN=a\n", 1},
        {"two entries without a gap", "dn: CN=a\ndn: CN=b\n", 2},
        {"not a DN", "\n\ndn: a\n", 3},
        {"DN cut short", "dn: CN=a\\\nv: 1\n", 1},
        {"empty DN", "dn:\n", 1},
        {"the same DN again", "dn: CN=a,DC=x\n\ndn: cn=A, dc=X\nv: 1\n", 3},
        {"base64 with a wrong letter", "dn: CN=a\nv:: QQ*=\n", 2},
        {"base64 cut short", "dn: CN=a\nv:: QQ=\n", 2},
        {"base64 of padding only", "dn: CN=a\nv:: ====\n", 2},
        {"base64 behind its end", "dn: CN=a\nv:: QQ==QQ==\n", 2},
        {"value in another file", "dn: CN=a\nv:< file:///etc/shadow\n", 2},
        {"a change", "dn: CN=a\nchangetype: delete\n", 2},
        {"NUL", "dn: CN=a\nv: " + std::string(ZeroByte) + "\n", 2},
        {"SID cut short", "dn: CN=a\nobjectSid:: AQUAAAAAAAUVAAAA\n", 2},
        {"SID of text that is none", "dn: CN=a\nobjectSid: S-1-5-4294967296\n", 2},
        {"a folded line counts from its first", "dn: CN=a\nv:\n x\n y\nw\n", 5},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.name);
        LDIF_ERROR error;
        EXPECT_FALSE(LDIF_DATA::Parse(c.file, error));
        EXPECT_EQ(c.line, error.line) << error.reason;
    }
}

TEST(DirectoryText, EqualDnsHaveEqualComponents) {
    using PARTS = std::vector<std::string>;
    struct CASE {
        const char* dn;
        std::optional<PARTS> wanted;
    };
    const CASE cases[] = {
        {"", PARTS{}},
        {"CN=Ann Archer,OU=Sales,DC=x", PARTS{"cn=ann archer", "ou=sales", "dc=x"}},
        {" cn = Ann , dc=X ", PARTS{"cn=ann", "dc=x"}},
        {"CN=Smith\\, Team,DC=x", PARTS{"cn=smith, team", "dc=x"}},
        {"CN=Smith\\2C Team,DC=x", PARTS{"cn=smith, team", "dc=x"}},
        {"CN=a\\+b\\\"\\\\\\20,DC=x", PARTS{"cn=a+b\"\\ ", "dc=x"}},
        {"CN=a+UID=7,DC=x", PARTS{"cn=a+uid=7", "dc=x"}},
        {"CN=\xC3\x84,DC=x", PARTS{"cn=\xC3\xA4", "dc=x"}},
        {"CN=a=b/c", PARTS{"cn=a=b/c"}},
        {"CN=a,", std::nullopt},
        {"a", std::nullopt},
        {"=a", std::nullopt},
        {"CN=a\\", std::nullopt},
        {"CN=a\\2", std::nullopt},
        {"CN=a\\2x", std::nullopt},
        {"<SID=S-1-5-21-1>", std::nullopt},
    };
    for (const CASE& c : cases) EXPECT_EQ(c.wanted, SplitDn(c.dn)) << c.dn;
    EXPECT_TRUE(IsAtOrBelow(*SplitDn("CN=a,DC=b,DC=c"), *SplitDn("dc=B,dc=C")));
    EXPECT_FALSE(IsAtOrBelow(*SplitDn("CN=a,DC=bb,DC=c"), *SplitDn("DC=b,DC=c")));
    EXPECT_FALSE(IsAtOrBelow(*SplitDn("DC=c"), *SplitDn("DC=b,DC=c")));
}

TEST(DirectoryText, NothingInAFilterValueMeansMoreThanItself) {
    EXPECT_EQ("WS-01$", FilterText("WS-01$"));
    EXPECT_EQ("\\2a\\29\\28objectClass\\3d\\2a", FilterText("*)(objectClass=*"));
    EXPECT_EQ("a\\5cb\\00c\\c3\\a4", FilterText("a\\b" + std::string(ZeroByte) + "c\xC3\xA4"));
}

TEST(DirectoryText, PathsAreTakenApartAtThePlainSlashOnly) {
    struct CASE {
        const char* path;
        const char *server, *dn;  // null: refused
    };
    const CASE cases[] = {
        {"//CN=a,DC=x", "", "CN=a,DC=x"},
        {"//dc1.x:389/CN=a,DC=x", "dc1.x:389", "CN=a,DC=x"},
        {"//CN=Ops\\/Net,DC=x", "", "CN=Ops/Net,DC=x"},
        {"//[::1]/CN=a\\/b\\,c\\\\\\/d", "[::1]", "CN=a/b\\,c\\\\/d"},
        {"//dc1/CN=a/b", nullptr, nullptr},
        {"//evil@host?x/CN=a", nullptr, nullptr},
        {"/CN=a", nullptr, nullptr},
        {"//dc1", nullptr, nullptr},
        {"//", nullptr, nullptr},
        {"//<SID=0105>", nullptr, nullptr},
    };
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.path);
        const auto parsed = ParseAdsPath(c.path);
        ASSERT_EQ(c.dn != nullptr, parsed.has_value());
        if (!parsed) continue;
        EXPECT_EQ(c.server, parsed->server);
        EXPECT_EQ(c.dn, parsed->dn);
    }
}

TEST(DirectoryText, SidsAreTheSameBothWays) {
    for (const char* sid : {"S-1-5-21-1004336348-1177238915-682003330-1104", "S-1-5-32-545", "S-1-0",
                            "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15"}) {
        const auto bytes = SidFromText(sid);
        ASSERT_TRUE(bytes) << sid;
        EXPECT_EQ(sid, SidToText(*bytes).value_or(""));
    }
    for (const char* sid : {"", "S-1-", "S-2-5-1", "S-1-5-", "S-1-5-x", "S-1-5--1", "S-1-5-4294967296", "S-1-5 -1",
                            "S-1-5-1-2-3-4-5-6-7-8-9-10-11-12-13-14-15-16"})
        EXPECT_FALSE(SidFromText(sid)) << sid;
    EXPECT_FALSE(SidToText(std::string("\x01\x02\0\0\0\0\0\x05\x15\0\0\0", 12))) << "cut short";
    EXPECT_FALSE(SidToText(std::string("\x01\xFF\0\0\0\0\0\x05", 8)));
}

TEST(DirectoryText, RangesOfPartialAnswersAreRead) {
    struct CASE {
        const char* attribute;
        long first, last;  // last -1: the end; first -1: not a range
    };
    const CASE cases[] = {
        {"memberOf;range=0-1499", 0, 1499}, {"memberOf;Range=1500-*", 1500, -1}, {"memberOf", -1, 0},
        {"memberOf;range=5-4", -1, 0},      {"memberOf;range=-*", -1, 0},        {"memberOf;range=1-", -1, 0},
        {"memberOf;range=1-2x", -1, 0}};
    for (const CASE& c : cases) {
        SCOPED_TRACE(c.attribute);
        const auto range = ParseRange(c.attribute);
        ASSERT_EQ(c.first >= 0, range.has_value());
        if (!range) continue;
        EXPECT_EQ(static_cast<unsigned long>(c.first), range->first);
        EXPECT_EQ(c.last, range->last ? static_cast<long>(*range->last) : -1);
    }
}

}  // namespace
