// Which servers there are: the settings' own, one that the caller names, or those of the domain's DNS records.
#include <ldap.h>

#include <algorithm>
#include <map>
#include <mutex>
#include <sstream>

#include "win32/directory/directory_text.h"
#include "win32/directory/ldap_directory.h"

namespace win32 {

namespace {

constexpr size_t MaxServers = 3;  // of those that DNS names

// How long an answer of DNS, or that there was none, is relied on.
constexpr std::chrono::seconds FoundTime{60}, NotFoundTime{10};

// "HOST:PORT HOST:PORT", best first, of the records _ldap._tcp.dc._msdcs.DOMAIN.
std::string LookUpServers(const std::string& domain) {
    std::string name = "dc._msdcs." + domain;
    char* hosts = nullptr;
    std::string found;
    if (ldap_domain2hostlist(name.c_str(), &hosts) == LDAP_SUCCESS && hosts != nullptr) found = hosts;
    ldap_memfree(hosts);
    return found;
}

// The same, asked for once in a while; empty when DNS names none or does not answer in time.
std::string ServersOf(const std::string& domain) {
    struct ANSWER {
        std::string hosts;
        std::chrono::steady_clock::time_point until;
    };
    static std::mutex lock;
    static std::map<std::string, ANSWER>& answers = *new std::map<std::string, ANSWER>;
    const std::lock_guard guard(lock);
    const auto now = std::chrono::steady_clock::now();
    std::erase_if(answers, [now](const auto& one) { return one.second.until < now; });
    const auto known = answers.find(domain);
    if (known != answers.end()) return known->second.hosts;
    const auto found = std::make_shared<std::string>();
    const bool answered = FinishesWithin(LdapConnectTime, [found, domain] { *found = LookUpServers(domain); });
    const std::string hosts = answered ? *found : "";
    answers[domain] = {hosts, std::chrono::steady_clock::now() + (hosts.empty() ? NotFoundTime : FoundTime)};
    return hosts;
}

// A host's name or address as a URI has it: addresses of version 6 in brackets.
std::string HostOfUri(const std::string& server) {
    const bool bare = std::count(server.begin(), server.end(), ':') > 1 && server[0] != '[';
    return bare ? "[" + server + "]" : server;
}

std::vector<std::string> Uris(const LDAP_SETTINGS& settings, const std::string& server) {
    if (settings.uri.starts_with("ldapi://")) return {settings.uri};  // the socket leads to one server only
    const std::string scheme = settings.uri.starts_with("ldaps://") ? "ldaps://" : "ldap://";
    if (!server.empty()) return {scheme + HostOfUri(server)};
    if (!settings.uri.empty()) return {settings.uri};
    std::vector<std::string> uris;
    std::istringstream hosts(ServersOf(settings.domain));
    for (std::string host; uris.size() < MaxServers && hosts >> host;)
        if (IsServerName(host)) uris.push_back(scheme + host);
    return uris;
}

}  // namespace

HRESULT FindLdapServers(const DIRECTORY_TARGET& target, std::vector<LDAP_ACCESS>& servers, std::string& complaint) {
    const std::optional<LDAP_SETTINGS> settings = ReadLdapSettings(complaint);
    if (!settings) return E_INVALIDARG;
    LDAP_ACCESS access;
    access.bind = target.user.empty() ? settings->bind : LDAP_BIND::SIMPLE;
    access.user = target.user.empty() ? settings->user : target.user;
    access.password = target.password;
    access.keytab = settings->keytab;
    access.caFile = settings->caFile;
    access.startTls = settings->startTls;
    if (target.user.empty() && access.bind == LDAP_BIND::SIMPLE) {
        const std::optional<std::string> password = ReadPasswordFile(settings->passwordFile, complaint);
        if (!password) return E_ACCESSDENIED;
        access.password = *password;
    }
    for (const std::string& uri : Uris(*settings, target.server)) {
        access.uri = uri;
        servers.push_back(access);
    }
    if (!servers.empty()) return S_OK;
    complaint = "no DNS records _ldap._tcp.dc._msdcs." + settings->domain + " name a server";
    return DirectoryServerDown;
}

}  // namespace win32
