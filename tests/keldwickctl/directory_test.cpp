// The directory's commands: what the agent would report of an account, and whether all that it asks can be asked.
#include <ldap.h>

#include <nlohmann/json.hpp>

#include "tests/keldwickctl/program.h"
#include "tests/support/entry_lines.h"
#include "tests/support/ldap_server.h"
#include "tools/keldwickctl/commands.h"

extern "C" {
// There is no Kerberos here: every bind succeeds.
int __wrap_ldap_sasl_interactive_bind_s(LDAP*, const char*, const char*, LDAPControl**, LDAPControl**, unsigned,
                                        LDAP_SASL_INTERACT_PROC*, void*);
int __wrap_ldap_sasl_interactive_bind_s(LDAP*, const char*, const char*, LDAPControl**, LDAPControl**, unsigned,
                                        LDAP_SASL_INTERACT_PROC*, void*) {
    return LDAP_SUCCESS;
}
}

namespace tools {
namespace {

using testing::HasSubstr;
using testing::Not;

class DirectoryCommand : public testing::Test {
protected:
    // Values of the settings key and of its subkey "Linux", as the registry's file has them.
    void Set(const std::string& values, const std::string& linuxValues = "") const {
        root.Write("registry.reg",
                   "Windows Registry Editor Version 5.00\r\n\r\n"
                   "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick]\r\n" +
                       values + "\r\n[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux]\r\n" +
                       linuxValues);
    }

    // In this process, where there can be a server. The exit code; what it prints, and the error that it ends with.
    static OUTCOME Run(const std::vector<std::string>& words) {
        OUTCOME outcome;
        CLI::App app;
        AddDirectoryCommands(app);
        testing::internal::CaptureStdout();
        testing::internal::CaptureStderr();
        try {
            app.parse(std::vector<std::string>(words.rbegin(), words.rend()));
            outcome.exitCode = 0;
        } catch (const COMMAND_ERROR& error) {
            outcome.exitCode = 1;
            outcome.error = error.what();
        }
        outcome.error += testing::internal::GetCapturedStderr();
        outcome.out = testing::internal::GetCapturedStdout();
        return outcome;
    }
    static OUTCOME LookUp(const std::string& name) { return Run({"directory", "lookup", name}); }
    static nlohmann::json Json(const std::string& name) {
        return nlohmann::json::parse(Run({"directory", "lookup", "--json", name}).out, nullptr, false);
    }

    const TEMPORARY_ROOT root;
};

const std::string Office = Entries(
    R"(dn: CN=X,CN=Partitions,CN=Configuration,DC=x|nCName: DC=x|dnsRoot: office.example|nETBIOSName: OFFICE
dn: CN=Y,CN=Partitions,CN=Configuration,DC=y|nCName: DC=y|dnsRoot: y.example|nETBIOSName: EU.OFFICE
dn: CN=Ann,OU=Sales,DC=x|sAMAccountName: ann|memberOf: CN=Staff,DC=x
dn: CN=Staff,DC=x|sAMAccountName: staff
dn: CN=Big,DC=x|sAMAccountName: big|memberOf;range=0-1499: CN=Staff,DC=x
dn: CN=Ann,DC=y|sAMAccountName: ann
)");

TEST_F(DirectoryCommand, LookUpShowsWhichGroupsAreReported) {
    root.Write("directory.ldif", Office);
    const std::tuple<std::string, std::string, std::string> cases[] = {
        // IdentProtocol; what is said of the groups, for people and in JSON
        {"", "only over plain TCP", "plain TCP only"},
        {"dword:00000000", "only over plain TCP", "plain TCP only"},
        {"dword:00000007", "only over plain TCP", "plain TCP only"},
        {"dword:00000001", "not reported", "no"},
        {"dword:00000002", "Groups: 1\n", "yes"},
    };
    for (const auto& [protocol, said, json] : cases) {
        SCOPED_TRACE(protocol);
        Set(protocol.empty() ? "" : "\"IdentProtocol\"=" + protocol);
        const OUTCOME shown = LookUp("OFFICE\\ann");
        EXPECT_EQ(0, shown.exitCode) << shown.error;
        EXPECT_THAT(shown.out, HasSubstr("Groups: 1"));
        EXPECT_THAT(shown.out, HasSubstr("OFFICE\\staff"));
        EXPECT_THAT(shown.out, HasSubstr(said));
        EXPECT_EQ(json, Json("OFFICE\\ann").value("groupsReported", ""));
    }
}

// The agent drops the last label of a domain's name before it looks the account up.
TEST_F(DirectoryCommand, LookUpShowsTheNameAsItIsReported) {
    Set("");
    root.Write("directory.ldif", Office);
    EXPECT_THAT(LookUp("EU.OFFICE.example\\ann").out,
                AllOf(HasSubstr("EU.OFFICE\\ann  (without the domain's last label"), HasSubstr("CN=Ann,DC=y")));
    EXPECT_EQ("EU.OFFICE\\ann", Json("EU.OFFICE.example\\ann").value("name", ""));
    EXPECT_EQ("OFFICE\\ann", Json("ann@office.example").value("name", ""));
    EXPECT_THAT(LookUp("OFFICE\\ann").out, Not(HasSubstr("label")));
    const OUTCOME unknown = LookUp("eu.office\\ann");
    EXPECT_EQ(1, unknown.exitCode);
    EXPECT_THAT(unknown.error, AllOf(HasSubstr("as eu\\ann"), HasSubstr("0x80072116")));
}

TEST_F(DirectoryCommand, ACutOffListOfGroupsIsNotComplete) {
    Set("");
    root.Write("directory.ldif", Office);
    const OUTCOME shown = LookUp("OFFICE\\big");
    EXPECT_EQ(1, shown.exitCode);
    EXPECT_THAT(shown.error, HasSubstr("without groups"));
    EXPECT_THAT(shown.out, HasSubstr("CN=Big,DC=x"));
    EXPECT_EQ(false, Json("OFFICE\\big").value("complete", true));
    const OUTCOME check = Run({"directory", "check"});
    EXPECT_EQ(0, check.exitCode) << check.error;
    EXPECT_THAT(check.out, HasSubstr("6 entries, 1 of them with a cut-off memberOf"));
}

TEST_F(DirectoryCommand, CheckIncludesTheServerThatAdServerNames) {
    LDAP_SERVER usual, named;
    const std::string toUsual = "connect to ldap://" + usual.Host(), toNamed = "connect to ldap://" + named.Host();
    const std::string host = '"' + named.Host() + '"';
    const std::string expanded =  // "ldaps://d", which the agent takes
        "hex(2):6c,00,64,00,61,00,70,00,73,00,3a,00,2f,00,2f,00,64,00,00,00";
    const struct {
        std::string server;
        bool usualLives, namedLives;
        std::vector<std::string> wanted;  // of its output
        int exitCode = 1;
    } cases[] = {
        {host, true, true, {toUsual, "AdServer names: ldap://" + named.Host(), toNamed}, 0},
        {host, true, false, {toNamed, "0x8007203a"}},
        {"\"ldaps://dc1\"", true, true, {"ldaps://d", "AdServer"}},
        {expanded, true, true, {"ldaps://d", "AdServer"}},
        {"\"\"", true, false, {toUsual}, 0},
        {host, false, true, {toUsual}},  // names of service tickets are asked of the usual one
    };
    for (const auto& c : cases) {
        SCOPED_TRACE(c.server);
        usual.Die();
        named.Die();
        if (c.usualLives) usual.Live();
        if (c.namedLives) named.Live();
        Set("\"AdServer\"=" + c.server, "\"DirectoryUri\"=\"ldap://" + usual.Host() + "\"");
        const OUTCOME shown = Run({"directory", "check"});
        EXPECT_EQ(c.exitCode, shown.exitCode) << shown.error;
        for (const std::string& each : c.wanted)
            EXPECT_THAT(c.exitCode == 0 ? shown.out : shown.error, HasSubstr(each));
    }
}

}  // namespace
}  // namespace tools
