// Names translated and objects opened through the Windows interfaces, out of a directory of two domains; directory
// exports; the directory's settings. What a good server answers is tested with a real domain controller in
// tests/system.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <tuple>

#include "directory/com.h"
#include "directory/name_translation.h"
#include "tests/support/entry_lines.h"
#include "tests/support/peer.h"
#include "tests/win32/fixture.h"
#include "tests/win32/registry_keys.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"
#include "win32/directory/directory_text.h"
#include "win32/directory/ldif_file.h"
#include "win32/files/file_watch.h"
#include "win32/text/utf.h"

using namespace keldwick;
using namespace win32;

namespace {

constexpr HRESULT NotFound = HRESULT(0x80072116u), NotUnique = HRESULT(0x80072117u), NoMapping = HRESULT(0x80072118u);
constexpr DWORD Dn = ADS_NAME_TYPE_1779, Nt4 = ADS_NAME_TYPE_NT4, Simple = ADS_NAME_TYPE_DOMAIN_SIMPLE,
                Sid = ADS_NAME_TYPE_SID_OR_SID_HISTORY_NAME;

const std::string TwoDomains = Entries(
    R"(dn: CN=CORP,CN=Partitions,CN=Configuration,DC=corp|nCName: DC=corp|dnsRoot: corp.example|nETBIOSName: CORP
dn: CN=EU,CN=Partitions,CN=Configuration,DC=corp|nCName: DC=eu,DC=corp|dnsRoot: eu.corp.example|nETBIOSName: EU
dn: CN=Ann,OU=Ops\, all,DC=corp|sAMAccountName: ann|userPrincipalName: ann.a@corp.example|objectSid: S-1-5-21-1-2-3-1104
dn: CN=Ann,DC=eu,DC=corp|sAMAccountName: Ann|userPrincipalName: both@mail.example|objectSid: S-1-5-21-4-5-6-1104
dn: CN=Bob,DC=corp|sAMAccountName: bob|userPrincipalName: both@mail.example
dn: CN=Ops/Net,DC=corp|sAMAccountName: opsnet
dn: CN=Users,CN=Builtin,DC=corp|sAMAccountName: Users|objectSid: S-1-5-32-545
dn: CN=Twin 1,DC=corp|sAMAccountName: twin
dn: CN=Twin 2,DC=corp|sAMAccountName: TWIN
dn: OU=Ops\, all,DC=corp
dn: CN=Elsewhere,DC=other|sAMAccountName: else
)");

class Directory : public MACHINE_TEST {
protected:
    Directory() {
        EXPECT_EQ(S_OK, CoInitialize(nullptr));
        root.Write("directory.ldif", TwoDomains);
    }
    ~Directory() override { CoUninitialize(); }

    using NAME = std::pair<HRESULT, std::string>;

    static NAME Translate(DWORD from, std::string_view name, DWORD to, const DIRECTORY_BINDING* binding = nullptr) {
        STRING translated;
        HRESULT result = S_OK;
        TranslateName(from, ToUtf16(name).c_str(), to, translated, result, binding);
        return {result, ToUtf8(translated.View())};
    }
};

TEST_F(Directory, TranslatesEveryKindOfNameThatIsAskedFor) {
    const std::tuple<DWORD, const char*, DWORD, const char*> cases[] = {
        {Nt4, "corp\\ANN", Dn, "CN=Ann,OU=Ops\\, all,DC=corp"},     {Nt4, "EU\\ann", Dn, "CN=Ann,DC=eu,DC=corp"},
        {Dn, "cn=ann, ou=ops\\2C all, dc=corp", Nt4, "CORP\\ann"},  {Dn, "CN=Ops/Net,DC=corp", Nt4, "CORP\\opsnet"},
        {Dn, "CN=Users,CN=Builtin,DC=corp", Nt4, "BUILTIN\\Users"}, {Simple, "ann@CORP.EXAMPLE", Nt4, "CORP\\ann"},
        {Simple, "ann.a@corp.example", Nt4, "CORP\\ann"},           {Sid, "S-1-5-21-4-5-6-1104", Nt4, "EU\\Ann"},
    };
    for (const auto& [from, name, to, wanted] : cases)
        EXPECT_EQ((NAME{S_OK, wanted}), Translate(from, name, to)) << name;
    using NAMES = std::vector<std::string>;
    const std::tuple<HRESULT, DWORD, NAMES, DWORD> refused[] = {
        {NotUnique, Simple, {"both@mail.example"}, Nt4},
        {NotUnique, Nt4, {"CORP\\twin"}, Dn},
        {NotFound, Simple, {"ann", std::string(1000, '@')}, Nt4},
        {NotFound, Sid, {"S-1-5-21-1-2-3-9", "S-1-5-21-"}, Dn},
        {NotFound, Nt4, {"NONE\\ann", "CORP\\else", "ann", "CORP\\", "", "CORP\\*", "CORP\\*)(objectClass=*"}, Dn},
        {NotFound, Nt4, {"CORP\\a\\ann", "CORP\\" + std::string(1000, 'a')}, Dn},
        {NotFound, Dn, {std::string(100000, 'a'), "CN=Nobody,DC=corp", ""}, Nt4},
        {NoMapping, Dn, {"OU=Ops\\, all,DC=corp", "CN=Elsewhere,DC=other"}, Nt4},
        {E_NOTIMPL, 4, {"CORP\\ann"}, Dn},
        {E_NOTIMPL, Nt4, {"CORP\\ann"}, Sid},
    };
    for (const auto& [result, from, names, to] : refused)
        for (const std::string& name : names)
            EXPECT_EQ((NAME{result, ""}), Translate(from, name, to)) << name.substr(0, 60);
}

TEST_F(Directory, TheFilesChangesShowAtOnceAndABrokenFileChangesNothing) {
    root.Write("directory.ldif", TwoDomains + "dn: CN=New,DC=corp\nsAMAccountName: new\n");
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).second);
    root.Write("directory.ldif", "dn: CN=broken\nthis is no attribute\n");
    testing::internal::CaptureStderr();
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).second);
    EXPECT_EQ("CN=New,DC=corp", Translate(Nt4, "CORP\\new", Dn).second);
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1u, Times(said, "directory.ldif, line 2: ")) << said;
}

TEST_F(Directory, AServerThatIsNoHostsNameIsSpokenOfOnce) {
    testing::internal::CaptureStderr();
    DIRECTORY_BINDING binding;
    SetBindingServer(binding, u"ldaps://dc1");
    for (int i = 0; i < 2; ++i) EXPECT_EQ((NAME{E_INVALIDARG, ""}), Translate(Nt4, "CORP\\ann", Dn, &binding));
    const std::string said = testing::internal::GetCapturedStderr();
    EXPECT_EQ(1u, Times(said, "\"ldaps://dc1\"")) << said;
}

TEST(DirectoryText, ExtendedDnsAndDomains) {
    const std::string guid = "<GUID=0102>;", sid = "<SID=0101000000000005120000AB>",
                      lower = "<SID=0101000000000005120000ab>";
    const std::tuple<std::string, std::string, std::string> extended[] = {
        {guid + sid + ";CN=A,DC=b", lower, "CN=A,DC=b"},
        {sid + ";" + guid + "CN=A", lower, "CN=A"},
        {"CN=A" + sid + ";", "", "CN=A" + sid + ";"},
        {guid + "CN=A", "", "CN=A"},
        {guid + sid, "", sid},
        {"<>;<SID>;<SID=>;<SID=01>;<SID=010100000000000512000x>;CN=A", "", "CN=A"},
        {"<SID=" + std::string(16, '0') + ">;<SID=" + std::string(138, '1') + ">;<SID=" + std::string(17, '1') + ">;",
         "<SID=0000000000000000>", ""},
        {"<", "", "<"},
        {"", "", ""},
    };
    for (const auto& [text, itsSid, dn] : extended) {
        const EXTENDED_DN parsed = ParseExtendedDn(text);
        EXPECT_EQ(itsSid, parsed.sid) << text;
        EXPECT_EQ(dn, parsed.dn) << text;
    }
    const std::pair<std::string, std::string> domains[] = {{"CN=A,OU=B,DC=c,DC=d", "DC=c,DC=d"},
                                                           {"dc=c", "dc=c"},
                                                           {"CN=A\\,DC=b\\\\,dc=C", "dc=C"},
                                                           {"CN=aDC=b", ""},
                                                           {"CN=A, DC=b,DC=c", "DC=b,DC=c"},
                                                           {"CN=A; dc=b", "dc=b"},
                                                           {"CN=A,DC", ""},
                                                           {"", ""}};
    for (const auto& [dn, domain] : domains) EXPECT_EQ(domain, DomainPart(dn)) << dn;
}

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
        const auto* values = data->Entries()[0].Values("V");
        ASSERT_NE(nullptr, values);
        std::vector<std::string> got = *values;
        got.insert(got.begin(), data->Entries()[0].dn);
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

class LdapSettings : public MACHINE_TEST {
protected:
    void WritePassword(mode_t mode = 0600) const {
        root.Write("password", "secret\r\nmore");
        ASSERT_EQ(0, chmod(root.Path("password").c_str(), mode));
    }
    std::string Password() { return ReadPasswordFile(root.Path("password"), complaint).value_or("none"); }

    std::string complaint;
};

TEST_F(LdapSettings, ThatDoNotFitTogetherAreRefusedWithAReason) {
    const std::string plain = "DirectoryUri='ldap://dc' ", tls = "DirectoryUri='ldaps://dc:636' ",
                      domain = "DirectoryDomain='corp.example' ", start = "DirectoryStartTls=dword:1 ",
                      simple = "DirectoryBind='simple' ", user = "DirectoryUser='u' ",
                      file = "DirectoryPasswordFile='/p' ", secret = simple + user + file;
    const std::pair<const char*, std::string> cases[] = {
        // A part of the reason; empty: the values are good.
        {"", plain},
        {"", tls + secret},
        {"", plain + secret + start},
        {"ldaps://", plain + secret},
        {"DirectoryUser", tls + simple + file},
        {"DirectoryPasswordFile", tls + simple + user},
        {"gssapi", tls},
        {"DirectoryUri", "DirectoryUri='ldap://user@dc/x?y'"},
        {"DirectoryDomain", "DirectoryDomain='a/b'"},
        {"neither", ""},
    };
    for (const auto& [reason, values] : cases) {
        LinuxSettings(values);
        complaint.clear();
        EXPECT_EQ(*reason == '\0', ReadLdapSettings(complaint).has_value()) << complaint;
        EXPECT_THAT(complaint, testing::HasSubstr(reason)) << values;
    }
}

TEST_F(LdapSettings, WhatThisProcessChangesCountsAtOnce) {
    const KEY key(u"SOFTWARE\\Vantorel Systems\\Keldwick\\Linux");
    const OWNED_HANDLE changed = AutoEvent();
    ASSERT_EQ(ERROR_SUCCESS, Arm(key, changed));  // from now on the file is watched
    const OWNED_HANDLE busy = ManualEvent(), end = ManualEvent();
    const FILE_WATCH blocking(root.Path("blocking"), [&] {  // until then no change is told
        SetEvent(busy);
        WaitForSingleObject(end, SoonEnough);
    });
    for (int i = 0; i < 4; ++i) {
        if (i == 2) {
            root.Write("blocking", "x");
            ASSERT_TRUE(IsSet(busy, SoonEnough));
        }
        const std::u16string uri = i % 2 == 0 ? u"ldap://dc" : u"";
        const auto bytes = static_cast<DWORD>(2 * (uri.size() + 1));
        ASSERT_EQ(ERROR_SUCCESS,
                  RegSetValueExW(key, u"DirectoryUri", 0, REG_SZ, reinterpret_cast<const BYTE*>(uri.c_str()), bytes));
        for (int asked = 0; asked < 3; ++asked)
            EXPECT_EQ(uri.empty() ? DIRECTORY_BACKEND::NONE : DIRECTORY_BACKEND::LDAP, ConfiguredBackend()) << i;
    }
    SetEvent(end);
}

TEST_F(LdapSettings, RootSendsNoSecretThatTheRootsOwnerMayNotRead) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may read everything";
    WritePassword(0640);
    EXPECT_EQ("none", Password()) << "others may read it";
    WritePassword();
    ASSERT_EQ(0, chown(root.Path("").c_str(), 65534, 65534));
    EXPECT_EQ("none", Password()) << "root's";
    EXPECT_THAT(complaint, testing::HasSubstr("it must belong to the machine root's owner"));
    ASSERT_EQ(0, chown(root.Path("password").c_str(), 65534, 65534));
    EXPECT_EQ("secret", Password()) << complaint;
}

TEST_F(LdapSettings, AServerThatNeverFinishesTheHandshakeIsGivenUp) {
    const LISTENING silent;
    WritePassword();
    LinuxSettings("DirectoryUri='ldaps://127.0.0.1:" + std::to_string(silent.Port()) +
                  "' DirectoryBind='simple' DirectoryUser='ann' DirectoryPasswordFile='" + root.Path("password") + "'");
    std::unique_ptr<DIRECTORY> directory;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "it is bounded at all";
    EXPECT_GE(silent.Accept().Get(), 0);
}

}  // namespace
