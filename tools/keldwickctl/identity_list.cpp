#include "tools/keldwickctl/identity_list.h"

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <nlohmann/json.hpp>

#include "tools/keldwickctl/commands.h"
#include "win32/files/machine_root.h"

using nlohmann::json;

std::optional<IDENTITY_HEADING> IDENTITY_LIST::Open() {
    path = win32::MachinePath("Keldwick.identities");
    std::error_code error;
    const auto there = std::filesystem::symlink_status(path, error);
    if (there.type() == std::filesystem::file_type::not_found) return std::nullopt;
    if (there.type() != std::filesystem::file_type::regular)
        throw COMMAND_ERROR(path + " is not a file of the agent's");
    file.open(path, std::ios::binary);
    if (!file) throw COMMAND_ERROR("cannot read " + path + ": " + std::strerror(errno));
    std::getline(file, line);
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

bool IDENTITY_LIST::Next(LISTED_IDENTITY& identity) {
    if (!std::getline(file, line)) return false;
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
