// The directory's settings, and servers that do not answer as servers should. What a good one answers is tested with a
// real domain controller in tests/system.
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>

#include "tests/support/peer.h"
#include "tests/win32/fixture.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"

using namespace win32;

namespace {

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
