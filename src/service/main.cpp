// The program's entry on Linux: brings the arguments into the program's form, answers --help and --version, and runs
// it.
#include <sys/stat.h>
#include <windows.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "platform/string.h"
#include "platform/version_numbers.h"
#include "service/command_line.h"
#include "service/entry.h"
#include "service/settings.h"
#include "win32/files/machine_root.h"
#include "win32/files/standard_stream.h"
#include "win32/services/exit_status.h"
#include "win32/services/last_words.h"

namespace {

constexpr const char* Usage =
    "Keldwick, a user-identity agent: follows the Security log and reports who is logged on where.\n"
    "\n"
    "Usage: keldwick [OPTION ...]    an option begins with - or /, in any letter case\n"
    "\n"
    "How to run\n"
    "  -A                      as an application, until stopped through the setting Shutdown\n"
    "  -X                      only apply the settings given here, and end\n"
    "  -REPORT_IDENTITY        only report this computer's user once (to test a server)\n"
    "  -REPORT_HEARTBEAT       the same, followed by a heartbeat\n"
    "  -REPORT_LOGOFF          the same, followed by a logoff\n"
    "  without these           as a service under systemd, else as an application\n"
    "\n"
    "Settings, kept for later runs\n"
    "  -SERVER HOST            the identity server\n"
    "  -PROTOCOL WORD          AUTO, TCPS or TCP\n"
    "  -AD_SERVER HOST         the directory server; an empty text: the global catalog\n"
    "\n"
    "For a report by hand\n"
    "  -USER_NAME NAME         in place of the current user\n"
    "  -COMPUTER_NAME NAME     in place of this computer\n"
    "\n"
    "Debug output, kept for later runs\n"
    "  -D  -KD                 to the debugger (standard error), to the kernel's\n"
    "  -L  -O  -R              to the log file: append, overwrite, rename the old one\n"
    "  -V  -AD  -TCP           also verbose lines, directory look-ups, transports; give one\n"
    "                          of the former with them, as what is kept is taken as it stands\n"
    "  -INTERNAL               also the debug output's messages about itself\n"
    "  -NO_TIME_STAMP          lines without time\n"
    "  -C                      forget the kept debug output\n"
    "  -DUMP_PERTINENT  -DUMP_NON_PERTINENT  -DUMP_ALL  -MINI_DUMP\n"
    "                          dump event records\n"
    "\n"
    "  --help  --version       this text, the version\n"
    "\n"
    "The machine root is the folder named by KELDWICK_ROOT; else the current folder, or the\n"
    "program's own when only that holds registry.reg. keldwickctl init makes one.\n";

// These two alone have a second hyphen. True: the program's work is done.
bool AnswerQuestion(const char* argument) {
    using keldwick::VERSION_NUMBERS;
    if (std::strcmp(argument, "--help") == 0) {
        std::fputs(Usage, stdout);
        return true;
    }
    if (std::strcmp(argument, "--version") == 0) {
        std::printf("keldwick %u.%u.%u build %u\n", VERSION_NUMBERS::Major, VERSION_NUMBERS::Minor,
                    VERSION_NUMBERS::Revision, VERSION_NUMBERS::Build);
        return true;
    }
    return false;
}

// Without the registry's file there is no machine root, and nothing may be made in the folder. A wrong argument comes
// first: the program says what is wrong with it, and makes nothing either.
bool IsRootMissing(const std::vector<WCHAR*>& arguments) {
    keldwick::COMMAND_LINE trial;
    if (keldwick::ParseCommandLine(trial, arguments.data(), static_cast<DWORD>(arguments.size())) != nullptr)
        return false;
    struct stat about;
    const std::string file = win32::MachinePath(win32::RegistryFile);
    return stat(file.c_str(), &about) != 0 && (errno == ENOENT || errno == ENOTDIR);
}

// Where it cannot be opened for another reason, the layer has said why.
bool IsSettingsKeyMissing() {
    keldwick::REG_KEY key;
    return RegOpenKeyExW(HKEY_LOCAL_MACHINE, keldwick::SettingsKeyPath, 0, KEY_READ, key.Put()) == ERROR_FILE_NOT_FOUND;
}

// One line: which root, which file, which command.
int FailNoSettings(const char* missing) {
    const std::string root = win32::MachineRoot();
    std::fprintf(stderr,
                 "keldwick: the machine root %s has no %s: make it by \"keldwickctl --root %s init\", or name another "
                 "by KELDWICK_ROOT\n",
                 root.c_str(), missing, root.c_str());
    return keldwick::EXIT_NO_SETTINGS_KEY;
}

}  // namespace

int main(int argc, char** argv) {
    win32::IgnoreBrokenPipes();
    win32::EndOnUncaughtException();
    if (argc > 1 && AnswerQuestion(argv[1])) return 0;

    // Kept until the process ends, as Windows does: what was parsed points into them, and a service's thread may
    // outlive its dispatcher.
    static auto& texts = *new std::vector<keldwick::STRING>(argv, argv + argc);
    static auto& arguments = *new std::vector<WCHAR*>;
    for (keldwick::STRING& text : texts) arguments.push_back(text.Buffer());
    if (IsRootMissing(arguments)) return FailNoSettings("registry.reg");
    // A service's own exit code reaches the manager as the process's.
    const int code = keldwick::RunProgram(argc, arguments.data());
    if (code == keldwick::EXIT_NO_SETTINGS_KEY && IsSettingsKeyMissing())
        return FailNoSettings("settings key in its registry.reg");
    return code != 0 ? code : win32::ServiceExitStatus();
}
