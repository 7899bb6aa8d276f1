// Names translated and objects opened through the Windows interfaces, out of a directory of two domains.
#include <tuple>

#include "directory/com.h"
#include "directory/name_translation.h"
#include "tests/support/entry_lines.h"
#include "tests/win32/fixture.h"
#include "win32/text/utf.h"

using namespace keldwick;
using win32::ToUtf16;
using win32::ToUtf8;

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
    const struct {
        DWORD from;
        const char* name;
        DWORD to;
        const char* wanted;
    } cases[] = {
        {Nt4, "corp\\ANN", Dn, "CN=Ann,OU=Ops\\, all,DC=corp"},     {Nt4, "EU\\ann", Dn, "CN=Ann,DC=eu,DC=corp"},
        {Dn, "cn=ann, ou=ops\\2C all, dc=corp", Nt4, "CORP\\ann"},  {Dn, "CN=Ops/Net,DC=corp", Nt4, "CORP\\opsnet"},
        {Dn, "CN=Users,CN=Builtin,DC=corp", Nt4, "BUILTIN\\Users"}, {Simple, "ann@CORP.EXAMPLE", Nt4, "CORP\\ann"},
        {Simple, "ann.a@corp.example", Nt4, "CORP\\ann"},           {Sid, "S-1-5-21-4-5-6-1104", Nt4, "EU\\Ann"},
    };
    for (const auto& c : cases) EXPECT_EQ((NAME{S_OK, c.wanted}), Translate(c.from, c.name, c.to)) << c.name;
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

}  // namespace
