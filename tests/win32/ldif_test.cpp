// Directory exports.
#include "win32/directory/ldif_file.h"

#include <gtest/gtest.h>

using namespace win32;

namespace {

TEST(Ldif, ReadsWhatTheExportingToolsWrite) {
    const std::pair<std::string, std::vector<std::string>> cases[] = {
        // The file; the DN, then the values of "v".
        {"dn: CN=a\nv: 1\nV: 2\n", {"CN=a", "1", "2"}},
        {"dn: CN=\n a\nv\n : 1\n 2\n", {"CN=a", "12"}},
        {"dn:: Q049w6Q=\nv:: AAH/\nv::QQ==\n", {"CN=\xC3\xA4", std::string("\0\x01\xFF", 3), "A"}},
        {"dn: CN=a\nchangetype: add\nv;binary: 1\n", {"CN=a", "1"}},
        {"dn: CN=a\nv;range=0-*: 1\nv;Range=0-*: 2\n", {"CN=a", "1", "2"}},
        {"dn: CN=a\nv;range=2-*: 3\nx: y\nv;range=0-1: 1\nV;RANGE=0-1: 2\n", {"CN=a", "1", "2", "3"}},
        {"dn: CN=a\nv: 1\n\nref: ldap://x\n\nsearch: 2\nresult: 0 Success\n", {"CN=a", "1"}},
        {"\357\273\277dn: CN=a\nv: 1\n", {"CN=a", "1"}},
        {{"\377\376d\0n\0:\0 \0C\0N\0=\0\344\0\n\0v\0:\0001\0", 26}, {"CN=\xC3\xA4", "1"}},
    };
    for (const auto& [file, wanted] : cases) {
        SCOPED_TRACE(file);
        LDIF_ERROR error;
        const auto data = LDIF_DATA::Parse(file, error);
        ASSERT_TRUE(data) << error.line << ": " << error.reason;
        ASSERT_EQ(1u, data->Entries().size());
        std::vector<std::string> got{data->Entries()[0].dn};
        const auto* values = data->Entries()[0].Values("V");
        ASSERT_NE(nullptr, values);
        got.insert(got.end(), values->begin(), values->end());
        EXPECT_EQ(wanted, got);
    }
}

TEST(Ldif, AListOfWhichAPartIsMissingIsCutOff) {
    for (const std::string parts : {"v;range=0-1: 1", "v;range=1-*: 2", "v;range=0-0: 1\nv;range=2-*: 3",
                                    "v;range=0-1: 1\nv;range=1-*: 2", "v;range=0-0: 1\nV;Range=1-2: 2"}) {
        LDIF_ERROR error;
        const auto data = LDIF_DATA::Parse("dn: CN=a\n" + parts + "\nw;range=0-*: 1\n", error);
        ASSERT_TRUE(data) << error.reason;
        const DIRECTORY_ENTRY& entry = data->Entries()[0];
        EXPECT_TRUE(IsCutOff(entry, "V")) << parts;
        EXPECT_EQ(nullptr, entry.Values("v")) << parts;
        EXPECT_FALSE(IsCutOff(entry, "w"));
    }
}

TEST(Ldif, NamesTheLineThatItCannotRead) {
    const std::pair<size_t, std::string> cases[] = {
        {4, "dn: CN=a\n\n# x\nv\n"},
        {1, "v: 1\ndn: CN=a\n"},
        {3, "dn: CN=a,DC=x\n\ndn: cn=A, dc=X\nv: 1\n"},
        {2, "dn: CN=a\nv:< file:///etc/shadow\n"},
        {2, "dn: CN=a\nchangetype: delete\n"},
        {2, {"dn: CN=a\nv: \0\n", 14}},
        {2, "dn: CN=a\nobjectSid:: AQUAAAAAAAUVAAAA\n"},  // cut short
        {2, "dn: CN=a\nobjectSid: S-1-5-4294967296\n"},
    };
    LDIF_ERROR error;
    for (const auto& [line, file] : cases) {
        EXPECT_FALSE(LDIF_DATA::Parse(file, error)) << file;
        EXPECT_EQ(line, error.line) << error.reason << " in " << file;
    }
    for (const std::string base64 : {"QQ*=", "QQ=", "====", "QQ==QQ=="})
        EXPECT_FALSE(LDIF_DATA::Parse("dn: CN=a\nv:: " + base64 + "\n", error)) << base64;
}

}  // namespace
