// The directory's settings, and servers that do not answer as servers should. What a good one answers is tested with a
// real domain controller in tests/system.
#include <adshlp.h>
#include <arpa/inet.h>
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

using VALUES = std::vector<std::pair<std::string, std::string>>;  // name and what stands behind the equals sign

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
    struct CASE {
        VALUES values;
        const char* reason;  // a part of it; empty: they are good
    };
    const std::pair<std::string, std::string> plain{"Uri", "\"ldap://dc\""}, tls{"Uri", "\"ldaps://dc:636\""},
        local{"Uri", "\"ldapi://%2Frun%2Fldapi\""}, simple{"Bind", "\"simple\""}, user{"User", "\"u\""},
        file{"PasswordFile", "\"/p\""}, start{"StartTls", "dword:00000001"};
    const CASE cases[] = {
        {{plain}, ""},
        {{local}, ""},
        {{{"Domain", "\"corp.example\""}}, ""},
        {{tls, simple, user, file}, ""},
        {{plain, simple, user, file, start}, ""},
        {{local, simple, user, file}, ""},
        {{plain, simple, user, file}, "ldaps://"},
        {{{"Domain", "\"corp.example\""}, simple, user, file}, "ldaps://"},
        {{tls, simple, file}, "DirectoryUser"},
        {{tls, simple, user}, "DirectoryPasswordFile"},
        {{tls, start}, "DirectoryStartTls"},
        {{tls}, "gssapi"},
        {{plain, {"Bind", "\"none\""}}, "DirectoryBind"},
        {{plain, {"Bind", "\"kerberos\""}}, "DirectoryBind"},
        {{{"Uri", "\"http://dc\""}}, "DirectoryUri"},
        {{{"Uri", "\"ldap://dc ldap://evil\""}}, "DirectoryUri"},
        {{{"Uri", "\"ldap://user@dc/x?y\""}}, "DirectoryUri"},
        {{{"Domain", "\"a b\""}}, "DirectoryDomain"},
        {{}, "neither"},
    };
    for (const CASE& c : cases) {
        Set(c.values);
        std::string complaint;
        EXPECT_EQ(*c.reason == '\0', ReadLdapSettings(complaint).has_value()) << complaint;
        EXPECT_NE(std::string::npos, complaint.find(c.reason)) << c.reason << " in " << complaint;
    }
}

TEST_F(LdapSettings, AFileBesideTheRegistryIsTheDirectoryUnlessTheSettingsSayOtherwise) {
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
}

// Listens on a free port and never says a word.
// An authority of nobody's.
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

class SILENT_SERVER {
public:
    SILENT_SERVER() : listener(socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0)) {
        sockaddr_in address{};
        address.sin_family = AF_INET;
        address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
        socklen_t size = sizeof(address);
        EXPECT_EQ(0, bind(listener, reinterpret_cast<sockaddr*>(&address), size));
        EXPECT_EQ(0, listen(listener, 8));
        EXPECT_EQ(0, getsockname(listener, reinterpret_cast<sockaddr*>(&address), &size));
        port = ntohs(address.sin_port);
    }
    ~SILENT_SERVER() { close(listener); }
    SILENT_SERVER(const SILENT_SERVER&) = delete;
    SILENT_SERVER& operator=(const SILENT_SERVER&) = delete;

    bool WasCalled() const {  // since it was asked last
        pollfd waiting{listener, POLLIN, 0};
        if (poll(&waiting, 1, 0) != 1) return false;
        close(accept(listener, nullptr, nullptr));
        return true;
    }

    const int listener;
    int port = 0;
};

TEST_F(LdapSettings, AServerThatNeverFinishesTheTlsHandshakeIsGivenUpAndLeftAloneForAWhile) {
    const SILENT_SERVER server;
    root.Write("password", "secret");
    root.Write("authority", Authority);
    ASSERT_EQ(0, chmod(root.Path("password").c_str(), 0600));
    Set({{"Uri", "\"ldaps://127.0.0.1:" + std::to_string(server.port) + "\""},
         {"CaFile", "\"" + root.Path("authority") + "\""},
         {"Bind", "\"simple\""},
         {"User", "\"ann\""},
         {"PasswordFile", "\"" + root.Path("password") + "\""}});
    std::unique_ptr<DIRECTORY> directory;
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
    EXPECT_LT(std::chrono::steady_clock::now() - begin, std::chrono::seconds(30)) << "it is bounded at all";
    EXPECT_TRUE(server.WasCalled());
    EXPECT_EQ(DirectoryServerDown, OpenDirectory({}, directory));
    EXPECT_FALSE(server.WasCalled());
    EXPECT_EQ(nullptr, directory);
}

}  // namespace
