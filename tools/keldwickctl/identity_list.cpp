#include "tools/keldwickctl/identity_list.h"

#include <fcntl.h>

#include <cerrno>
#include <cstdio>
#include <nlohmann/json.hpp>

#include "tools/keldwickctl/commands.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"

using nlohmann::json;

std::optional<IDENTITY_HEADING> IDENTITY_LIST::Open() {
    path = win32::MachinePath("Keldwick.identities");
    const int descriptor = win32::OpenRootFile(path, O_RDONLY);
    file.reset(descriptor >= 0 ? fdopen(descriptor, "r") : nullptr);
    if (!file && errno == ENOENT) return std::nullopt;
    if (!file) throw COMMAND_ERROR("cannot read " + path + ": " + win32::FileFault(errno));
    NextLine();
    try {
        const json object = json::parse(line);
        const auto number = [&object](const char* name) { return object.at(name).get<int64_t>(); };
        return IDENTITY_HEADING{static_cast<pid_t>(number("process")),
                                number("written"),
                                number("ttl"),
                                number("identities"),
                                number("tickets"),
                                number("answered"),
                                number("failed"),
                                number("retried")};
    } catch (const json::exception&) {
        throw COMMAND_ERROR(path + " is damaged; the agent writes it anew within a minute or so");
    }
}

// A file without line breaks may be larger than the memory: what follows the longest line counts as another.
bool IDENTITY_LIST::NextLine() {
    constexpr size_t longest = 1024 * 1024;
    line.clear();
    int unit = 0;
    while (unit != '\n' && line.size() < longest && (unit = getc_unlocked(file.get())) != EOF)
        line += static_cast<char>(unit);
    return !line.empty();
}

bool IDENTITY_LIST::Next(LISTED_IDENTITY& identity) {
    if (!NextLine()) return false;
    try {
        const json object = json::parse(line);
        object.at("address").get_to(identity.address);
        object.at("user").get_to(identity.user);
        object.at("computer").get_to(identity.computer);
        object.at("logon").get_to(identity.logon);
    } catch (const json::exception&) {
        throw COMMAND_ERROR(path + " is damaged; the agent writes it anew within a minute or so");
    }
    return true;
}
