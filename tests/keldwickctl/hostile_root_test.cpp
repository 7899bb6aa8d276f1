// Root's commands in a machine root that another account owns, and what that account may have laid there.
#include <sys/stat.h>
#include <unistd.h>

#include <functional>

#include "tests/keldwickctl/program.h"

namespace fs = std::filesystem;
using testing::HasSubstr;

namespace {

constexpr uid_t Attacker = 65534;

class HostileRoot : public MACHINE {
protected:
    void SetUp() override {
        if (geteuid() != 0) GTEST_SKIP() << "only root can work in another account's folder";
        setenv("KELDWICK_ROOT", root.Path("").c_str(), 1);  // not the other one
        win32::ForgetMachineRoot();
        victim = elsewhere.Path("victim");
        elsewhere.Write("victim", "secret\n");
        ASSERT_EQ(0, chmod(victim.c_str(), 0600));
        ASSERT_EQ(0, chown(root.Path("").c_str(), Attacker, Attacker));
        ASSERT_EQ(0, Run("init").exitCode);
    }

    std::tuple<uid_t, gid_t, mode_t, std::string> Victim() const {
        struct stat about = {};
        stat(victim.c_str(), &about);
        return {about.st_uid, about.st_gid, about.st_mode, elsewhere.Read("victim")};
    }

    // What there is beside the victim now, which must be nothing.
    bool IsElsewhereAsItWas() const {
        return std::distance(fs::directory_iterator(elsewhere.Path("")), fs::directory_iterator()) == 1;
    }

    const TEMPORARY_ROOT elsewhere;
    std::string victim;
};

TEST_F(HostileRoot, NothingLaidInAFilesPlaceIsTouchedOrWaitedFor) {
    using PATH = const std::string&;
    // Each with what is said of it.
    const std::tuple<std::function<void(PATH path)>, const char*> things[] = {
        {[&](PATH path) { fs::create_symlink(victim, path); }, " is a link; "},
        {[&](PATH path) { fs::create_symlink(elsewhere.Path("new"), path); }, " is a link; "},
        {[&](PATH path) { fs::create_hard_link(victim, path); }, " has another name, "},
        {[](PATH path) { mkfifo(path.c_str(), 0666); }, " is a pipe; "},
    };
    // The command, the path, and whether it names what it met.
    const std::tuple<const char*, const char*, bool> cases[] = {
        {"settings set Heartbeat 5", "registry.reg", true},
        {"settings set Heartbeat 6", "registry.reg.lock", true},
        {"settings set Heartbeat 7", "registry.reg.new", false},
        {"settings list", "registry.reg", true},
        {"events write --id 4624 -- one", "eventlog/Security.evt", true},
        {"events list", "eventlog/Security.evt", true},
        {"events clear", "eventlog/Security.evt", true},
        {"init", "eventlog/Security.evt", false},
        {"feed json --name f", "feed/f.lock", true},
        {"feed json --name f", "feed/f.writing", true},
        {"feed json --name f", "feed/f.state", false},
        {"feed json --name f", "feed/f.state.new", false},
        {"feed json --name f", "feed/f.state.damaged", false},
        {"status", "feed/f.lock", false},
        {"status", "feed/f.state", true},
        {"directory lookup CORP\\ann", "directory.ldif", false},
    };
    ASSERT_EQ(0, Run("feed json --name f").exitCode);
    const auto before = Victim();
    for (const auto& [command, name, named] : cases) {
        for (const auto& [lay, reason] : things) {
            SCOPED_TRACE(testing::Message() << command << ": " << name << reason);
            const std::string path = root.Path(name), kept = root.Path("kept");
            std::error_code none;
            fs::rename(path, kept, none);
            lay(path);
            if (fs::hard_link_count(victim) == 1) {
                ASSERT_EQ(0, lchown(path.c_str(), Attacker, Attacker));
            }
            const OUTCOME outcome = Run(command);
            EXPECT_NE(-1, outcome.exitCode) << "it did not end";
            if (named) {
                EXPECT_THAT(outcome.out + outcome.error, HasSubstr(path + reason));
            }
            EXPECT_EQ(before, Victim());
            EXPECT_TRUE(IsElsewhereAsItWas());
            fs::remove(path, none);
            fs::rename(kept, path, none);
        }
    }
}

TEST_F(HostileRoot, OnlyAnAdministratorsLinkOfAFolderIsFollowed) {
    const std::string figures = "status --prometheus " + root.Path("exporter/k.prom");
    const std::pair<const char*, const char*> cases[] = {
        {"init", "eventlog"},        {"events write --id 4624 -- one", "eventlog"},
        {"events list", "eventlog"}, {"feed json --name f", "feed"},
        {"status", "feed"},          {figures.c_str(), "exporter"}};
    for (const auto& [command, folder] : cases) {
        SCOPED_TRACE(testing::Message() << command << " " << folder);
        ASSERT_EQ(0, Run("init").exitCode);
        fs::remove_all(root.Path(folder));
        fs::create_directory_symlink(elsewhere.Path(""), root.Path(folder));
        ASSERT_EQ(0, lchown(root.Path(folder).c_str(), Attacker, Attacker));
        const OUTCOME outcome = Run(command);
        EXPECT_THAT(outcome.out + outcome.error, HasSubstr(root.Path(folder) + " is a link of another account; "));
        EXPECT_TRUE(IsElsewhereAsItWas());
        fs::remove(root.Path(folder));
    }
    ASSERT_EQ(0, chown(elsewhere.Path("").c_str(), Attacker, Attacker));
    fs::remove_all(root.Path("eventlog"));
    fs::create_directory_symlink(elsewhere.Path(""), root.Path("eventlog"));  // root's own
    for (const char* command : {"init", "events write --id 4624 -- one"}) EXPECT_EQ(0, Run(command).exitCode);
    struct stat log = {};
    EXPECT_EQ(0, stat(elsewhere.Path("Security.evt").c_str(), &log));
    EXPECT_EQ(Attacker, log.st_uid) << "the agent's, as the folder is";
}

TEST_F(HostileRoot, TheStatusTellsNothingOfWhatAFileHoldsThatAFeedsStateNames) {
    ASSERT_EQ(0, Run("feed json --name f").exitCode);
    struct stat about = {};
    ASSERT_EQ(0, stat(victim.c_str(), &about));
    const auto guess = [&](const char* fingerprint) {  // of the first letter
        root.Write("feed/f.state",
                   R"({"file":")" + victim + R"(","saved":"x","behind":99,"nextRecord":1,"records":0,)" +
                       R"("skipped":0,"unreadable":0,"offset":1,"device":)" + std::to_string(about.st_dev) +
                       ",\"inode\":" + std::to_string(about.st_ino) + ",\"tail\":" + fingerprint + "}");
        return Run("status").out;
    };
    const std::string right = guess("12638206991764949794");  // of "s"
    EXPECT_THAT(right, HasSubstr(", 6 bytes behind"));
    EXPECT_EQ(right, guess("1"));
}

}  // namespace
