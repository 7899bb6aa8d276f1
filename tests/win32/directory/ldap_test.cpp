// The directory's settings, and servers that do not answer as servers should. What a good one answers is tested with a
// real domain controller in tests/system.
#include <adshlp.h>
#include <arpa/inet.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <string>
#include <vector>

#include "tests/support/temporary_root.h"
#include "win32/directory/directory.h"
#include "win32/directory/directory_settings.h"

using namespace win32;

namespace {

using VALUES = std::vector<std::pair<std::string, std::string>>;  // name and what stands after the equals sign

class LdapSettings : public testing::Test {
protected:
    void Set(const VALUES& values) const {
        std::string text =
            "Windows Registry Editor Version 5.00\r\n\r\n"
            "[HKEY_LOCAL_MACHINE\\SOFTWARE\\Vantorel Systems\\Keldwick\\Linux]\r\n";
        for (const auto& [name, value] : values) text += "\"Directory" + name + "\"=" + value + "\r\n";
        root.Write("registry.reg", text);
    }

    const TEMPORARY_ROOT root;
};

TEST_F(LdapSettings, ThatDoNotFitTogetherAreRefusedWithAReason) {
    const VALUES::value_type plain{"Uri", "\"ldap://dc\""}, tls{"Uri", "\"ldaps://dc:636\""},
        local{"Uri", "\"ldapi://%2Frun%2Fldapi\""}, domain{"Domain", "\"corp.example\""}, simple{"Bind", "\"simple\""},
        user{"User", "\"u\""}, file{"PasswordFile", "\"/p\""}, start{"StartTls", "dword:00000001"};
    const std::pair<const char*, VALUES> cases[] = {
        // A part of the reason; empty: the values are good.
        {"", {plain}},
        {"", {local}},
        {"", {domain}},
        {"", {tls, simple, user, file}},
        {"", {plain, simple, user, file, start}},
        {"", {local, simple, user, file}},
        {"ldaps://", {plain, simple, user, file}},
        {"ldaps://", {domain, simple, user, file}},
        {"DirectoryUser", {tls, simple, file}},
        {"DirectoryPasswordFile", {tls, simple, user}},
        {"DirectoryStartTls", {tls, start}},
        {"gssapi", {tls}},
        {"DirectoryBind", {plain, {"Bind", "\"none\""}}},
        {"DirectoryUri", {{"Uri", "\"http://dc\""}}},
        {"DirectoryUri", {{"Uri", "\"ldap://dc ldap://evil\""}}},
        {"DirectoryUri", {{"Uri", "\"ldap://user@dc/x?y\""}}},
        {"DirectoryDomain", {{"Domain", "\"a b\""}}},
        {"neither", {}},
    };
    for (const auto& [reason, values] : cases) {
        Set(values);
        std::string complaint;
        EXPECT_EQ(*reason == '\0', ReadLdapSettings(complaint).has_value()) << complaint;
        EXPECT_NE(std::string::npos, complaint.find(reason)) << reason << " in " << complaint;
    }
}

TEST_F(LdapSettings, AFileBesideTheRegistryIsTheDirectoryUnlessSetOtherwise) {
    Set({});
    EXPECT_EQ(DIRECTORY_BACKEND::NONE, ConfiguredBackend());
    Set({{"Domain", "\"corp.example\""}});
    EXPECT_EQ(DIRECTORY_BACKEND::LDAP, ConfiguredBackend());
    root.Write("directory.ldif", "");
    EXPECT_EQ(DIRECTORY_BACKEND::LDIF, ConfiguredBackend());
    Set({{"Backend", "\"LDAP\""}});
    EXPECT_EQ(DIRECTORY_BACKEND::LDAP, ConfiguredBackend());
}

TEST_F(LdapSettings, APasswordThatOthersMayReadIsNotUsed) {
    std::string complaint;
    root.Write("password", "secret\r\nmore");
    ASSERT_EQ(0, chmod(root.Path("password").c_str(), 0600));
    EXPECT_EQ("secret", ReadPasswordFile(root.Path("password"), complaint).value_or("")) << complaint;
    for (const mode_t mode : {0640, 0604, 0660, 0601}) {
        ASSERT_EQ(0, chmod(root.Path("password").c_str(), mode));
        EXPECT_FALSE(ReadPasswordFile(root.Path("password"), complaint)) << std::oct << mode;
    }
    EXPECT_FALSE(ReadPasswordFile(root.Path("missing"), complaint));
    EXPECT_FALSE(ReadPasswordFile(root.Path("."), complaint));
    ASSERT_EQ(0, chmod(root.Path("password").c_str(), 0600));
    ASSERT_EQ(0, symlink("password", root.Path("link").c_str()));
    EXPECT_FALSE(ReadPasswordFile(root.Path("link"), complaint));
    EXPECT_THAT(complaint, testing::HasSubstr(" is a link; "));
}

TEST_F(LdapSettings, RootSendsNoSecretThatTheRootsOwnerMayNotRead) {
    if (geteuid() != 0) GTEST_SKIP() << "only root may read everything";
    std::string complaint;
    root.Write("password", "secret");
    ASSERT_EQ(0, chmod(root.Path("password").c_str(), 0600));
    ASSERT_EQ(0, chown(root.Path("").c_str(), 65534, 65534));
    EXPECT_FALSE(ReadPasswordFile(root.Path("password"), complaint)) << "root's";
    EXPECT_THAT(complaint, testing::HasSubstr("it must belong to the machine root's owner"));
    ASSERT_EQ(0, chown(root.Path("password").c_str(), 65534, 65534));
    EXPECT_EQ("secret", ReadPasswordFile(root.Path("password"), complaint).value_or("")) << complaint;
}

// An authority that signs nothing here.
constexpr const char* Authority = R"(-----BEGIN CERTIFICATE-----
MIIBbjCCARWgAwIBAgIUV5d4SMHL/RiH7icn7NoJVHgEhrYwCgYIKoZIzj0EAwIw
DDEKMAgGA1UEAwwBQTAgFw0yNjExMjUwMTIwMzVaGA8yMTI2MTEwMTAxMjAzNVow
DDEKMAgGA1UEAwwBQTBZMBMGByqGSM49AgEGCCqGSM49AwEHA0IABLBS6R1fWxGE
O69JgfANVnJdKDB1zyE1XpEdbKt1rxkwo55h67c+exo0UrUZKfyrbP/RYjQ0ldgl
+EfHeqbXWwWjUzBRMB0GA1UdDgQWBBRJS2zatyxfO2JE7Jf/+VQqTqxxaDAfBgNV
HSMEGDAWgBRJS2zatyxfO2JE7Jf/+VQqTqxxaDAPBgNVHRMBAf8EBTADAQH/MAoG
CCqGSM49BAMCA0cAMEQCIAwM2k0+T9uljZk76RJaF3ZQKNqM0HrgGD1JjhJwT8mj
AiBuW+Ol+/gagaj8pxt8ceIG9pU23sj3YuOVYLTt4wed7w==
-----END CERTIFICATE-----
)";

TEST_F(LdapSettings, AServerThatNeverFinishesTheHandshakeIsGivenUp) {
    const int silent = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t size = sizeof(address);
    ASSERT_EQ(0, bind(silent, reinterpret_cast<sockaddr*>(&address), size));
    ASSERT_EQ(0, listen(silent, 8));
    ASSERT_EQ(0, getsockname(silent, reinterpret_cast<sockaddr*>(&address), &size));
    const auto wasCalled = [&] {  // since it was asked last
        pollfd waiting{silent, POLLIN, 0};
        return poll(&waiting, 1, 0) == 1 && close(accept(silent, nullptr, nullptr)) == 0;
    };
    root.Write("password", "secret");
    root.Write("authority", Authority);
    ASSERT_EQ(0, chmod(root.Path("password").c_str(), 0600));
    Set({{"Uri", "\"ldaps://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "\""},
         {"CaFile", "\"" + root.Path("authority") + "\""},
         {"Bind", "\"simple\""},
         {"User", "\"ann\""},
         {"PasswordFile", "\"" + root.Path("password") + "\""}});
    std::unique_ptr<DIRECTORY> directory;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "it is bounded at all";
    EXPECT_TRUE(wasCalled());
    EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
    EXPECT_FALSE(wasCalled());
    EXPECT_EQ(nullptr, directory);
    close(silent);
}

}  // namespace
