#include "win32/directory/directory_check.h"

#include <chrono>

#include "win32/directory/directory_settings.h"
#include "win32/directory/ldap_directory.h"
#include "win32/directory/ldif_file.h"

namespace win32 {

namespace {

class CHECK {
public:
    // Does one step; false: it failed. What it says may change while it is done.
    template <class ACTION>
    bool Step(std::string what, ACTION action) {
        steps.push_back({std::move(what), S_OK, "", 0});
        const auto begin = std::chrono::steady_clock::now();
        DIRECTORY_STEP& step = steps.back();
        step.result = action(step);
        const std::chrono::duration<double, std::milli> time = std::chrono::steady_clock::now() - begin;
        step.milliseconds = time.count();
        return SUCCEEDED(step.result);
    }

    std::vector<DIRECTORY_STEP> steps;
};

std::string BindText(const LDAP_ACCESS& access) {
    switch (access.bind) {
        case LDAP_BIND::NONE:
            return "no bind";
        case LDAP_BIND::SIMPLE:
            return "simple bind as " + access.user;
        case LDAP_BIND::GSSAPI:
            break;
    }
    return "GSSAPI bind" + (access.keytab.empty() ? std::string() : " with " + access.keytab);
}

void CountDomains(const std::vector<DIRECTORY_DOMAIN>& domains, DIRECTORY_STEP& step) {
    step.what = "read the forest's domains:";
    for (const DIRECTORY_DOMAIN& domain : domains) step.what += " " + domain.netbiosName + " (" + domain.dnsName + ")";
    if (domains.empty()) step.what += " none";
}

bool CheckServer(CHECK& check, const LDAP_ACCESS& access) {
    LDAP_CONNECTION connection;
    const auto explained = [&](DIRECTORY_STEP& step, HRESULT result) {
        if (FAILED(result)) step.reason = connection.Reason();
        return result;
    };
    const std::string secrecy = access.startTls ? " with StartTLS" : "";
    return check.Step("connect to " + access.uri + secrecy, [&](DIRECTORY_STEP& step) {
        return explained(step, connection.Connect(access));
    }) && check.Step(BindText(access), [&](DIRECTORY_STEP& step) {
        const HRESULT result = connection.Bind(access);
        if (SUCCEEDED(result)) step.what += ": this is " + connection.Identity();
        return explained(step, result);
    }) && check.Step("read the server's own entry", [&](DIRECTORY_STEP& step) {
        return explained(step, connection.ReadRoot());
    }) && check.Step("read the forest's domains", [&](DIRECTORY_STEP& step) {
        DIRECTORY_DOMAINS domains;
        const HRESULT result = SearchDomains(connection, domains);
        if (SUCCEEDED(result)) CountDomains(*domains, step);
        return explained(step, result);
    });
}

void CheckLdap(CHECK& check, const std::string& server) {
    std::vector<LDAP_ACCESS> servers;
    const std::string what = server.empty() ? "find the server" : "find the server that AdServer names:";
    const bool found = check.Step(what, [&](DIRECTORY_STEP& step) {
        const HRESULT result = FindLdapServers({server, "", ""}, servers, step.reason);
        for (const LDAP_ACCESS& access : servers) step.what += " " + access.uri;
        return result;
    });
    for (size_t i = 0; found && i < servers.size(); ++i)
        if (CheckServer(check, servers[i])) break;
}

void CheckLdif(CHECK& check) {
    const bool good = check.Step("read " + LdifPath(), [](DIRECTORY_STEP& step) {
        const LDIF_STATE state = CheckLdifFile();
        step.reason = state.complaint;
        if (state.complaint.empty()) step.what += ": " + std::to_string(state.entries) + " entries";
        if (state.cutOff > 0) step.what += ", " + std::to_string(state.cutOff) + " of them with a cut-off memberOf";
        return state.complaint.empty() ? S_OK : DirectoryServerDown;
    });
    if (!good) return;
    check.Step("find the forest's domains", [](DIRECTORY_STEP& step) {
        std::unique_ptr<DIRECTORY> directory;
        DIRECTORY_DOMAINS domains;
        HRESULT result = OpenLdifDirectory(directory);
        if (SUCCEEDED(result)) result = directory->Domains(domains);
        if (SUCCEEDED(result)) CountDomains(*domains, step);
        return result;
    });
}

}  // namespace

std::vector<DIRECTORY_STEP> CheckDirectory(const std::string& server) {
    CHECK check;
    const std::string complaint = server.empty() ? "" : ServerComplaint(server);
    const bool canBeAsked =
        complaint.empty() || check.Step("find the server that AdServer names", [&](DIRECTORY_STEP& step) {
            step.reason = complaint;
            return E_INVALIDARG;
        });
    if (!canBeAsked) return std::move(check.steps);
    const DIRECTORY_BACKEND backend = ConfiguredBackend();
    if (backend == DIRECTORY_BACKEND::LDAP) CheckLdap(check, server);
    if (backend == DIRECTORY_BACKEND::LDIF) CheckLdif(check);
    if (backend == DIRECTORY_BACKEND::NONE)
        check.Step("find a directory", [](DIRECTORY_STEP& step) {
            step.reason =
                "there is no directory.ldif in the machine root, and neither Linux\\DirectoryUri nor "
                "Linux\\DirectoryDomain is set";
            return REGDB_E_CLASSNOTREG;
        });
    return std::move(check.steps);
}

}  // namespace win32
