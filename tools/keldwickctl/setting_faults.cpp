#include "tools/keldwickctl/setting_faults.h"

#include <arpa/inet.h>
#include <sys/stat.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>

#include "diagnostics/debug_output.h"
#include "service/settings.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/directory/directory_settings.h"
#include "win32/eventlog/evt_format.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr DWORD MaxMinutes = MAXDWORD / 60000;  // above, the milliseconds do not fit and wrap
constexpr DWORD MaxLookupMs = 60000;
constexpr std::string_view FilePrefix = "FILE:";  // which a keytab's name may begin with
constexpr size_t MaxHostBytes = 253;

constexpr size_t MaxZoneBytes = 15;  // an interface's name

bool IsOfNames(unsigned char unit) { return std::isalnum(unit) != 0 || unit == '-' || unit == '_' || unit == '.'; }

bool IsAddress(const std::string& host) {
    in6_addr address;
    const size_t percent = host.find('%');
    const bool zoned = percent != std::string::npos;
    const std::string zone = zoned ? host.substr(percent + 1) : "";
    if (zoned && (zone.empty() || zone.size() > MaxZoneBytes || !std::all_of(zone.begin(), zone.end(), IsOfNames)))
        return false;
    return inet_pton(AF_INET6, host.substr(0, percent).c_str(), &address) == 1 ||
           inet_pton(AF_INET, host.c_str(), &address) == 1;
}

// Whether the last part of the name has digits only, as that of an IPv4 address has.
bool EndsInNumber(const std::string& host) {
    const std::string last = host.substr(host.rfind('.') + 1);
    return !last.empty() && last.find_first_not_of("0123456789") == std::string::npos;
}

std::string ProtocolFault(DWORD number) {
    return number > 2 ? "there is no such protocol: the agent takes 0, auto" : "";
}

std::string MinutesFault(DWORD minutes, const char* ofNone) {
    if (minutes == 0) return ofNone;
    if (minutes <= MaxMinutes) return "";
    return "more than " + std::to_string(MaxMinutes) + " minutes wrap round: the agent takes " +
           std::to_string(minutes * 60000 / 1000) + " seconds";
}

std::string HeartbeatFault(DWORD minutes) {
    return MinutesFault(minutes, "0 minutes: each identity is reported every minute");
}

std::string TtlFault(DWORD minutes) {
    return MinutesFault(minutes, "0 minutes: each identity expires within a minute");
}

std::string ShutdownFault(DWORD number) { return number > 2 ? "means nothing: 1 stops the agent" : ""; }

std::string ModeFault(DWORD mode) {
    using namespace keldwick;
    if (const DWORD unknown = mode & ~KnownDebugModes())
        return "the bits " + std::to_string(unknown) + " of it mean nothing";
    if (mode != 0 && (mode & DEBUG_MODE_LOG) == 0)
        return "has no \"log\": a running agent ends its log with it; set, for instance, log,append,verbose";
    return "";
}

std::string LookupFault(DWORD milliseconds) {
    return milliseconds > MaxLookupMs ? "the agent waits for " + std::to_string(MaxLookupMs) + " ms at most" : "";
}

std::string StartTlsFault(DWORD number) { return number > 1 ? "is 0 or 1" : ""; }

std::string DirectoryServerFault(const std::string& host) {
    if (host.find("://") != std::string::npos || host.find_first_of(" \t\r\n/\\") != std::string::npos)
        return "is not a server's name: no URL, blank or slash belongs into it";
    return "";
}

std::string UriFault(const std::string& uri) {
    return uri.empty() || win32::IsDirectoryUri(uri) ? "" : "is not ldap://HOST, ldaps://HOST or ldapi://SOCKET";
}

std::string PathFault(const std::string& path) {
    struct stat about;
    const std::string plain = path.starts_with(FilePrefix) ? path.substr(FilePrefix.size()) : path;
    return path.empty() || stat(plain.c_str(), &about) == 0 || errno != ENOENT ? "" : "there is no such file";
}

std::string IdentServerFault(const std::string& host) {
    return host.empty() ? "is empty: the agent has nowhere to report to" : HostFault(host);
}

struct RULE {
    std::u16string_view name;
    std::string (*ofNumber)(DWORD) = nullptr;
    std::string (*ofText)(const std::string&) = nullptr;
};

constexpr RULE Rules[] = {
    {u"IdentServer", nullptr, IdentServerFault},
    {u"IdentProtocol", ProtocolFault},
    {u"AdServer", nullptr, DirectoryServerFault},
    {u"Heartbeat", HeartbeatFault},
    {u"LogonTTL", TtlFault},
    {u"Shutdown", ShutdownFault},
    {u"DebugOutput", ModeFault},
    {u"Linux\\NameLookupTimeout", LookupFault},
    {u"Linux\\DirectoryStartTls", StartTlsFault},
    {u"Linux\\DirectoryUri", nullptr, UriFault},
    {u"Linux\\DirectoryPasswordFile", nullptr, PathFault},
    {u"Linux\\DirectoryKeytab", nullptr, PathFault},
    {u"Linux\\DirectoryCaFile", nullptr, PathFault},
};

// The agent reads no value of another type than the name's.
std::string TypeFault(const keldwick::SETTING_INFO& setting, const win32::REG_VALUE& value) {
    const bool text = setting.type == REG_SZ;
    const bool fits = text ? value.type == REG_SZ || value.type == REG_EXPAND_SZ
                           : value.type == REG_DWORD && value.data.size() == sizeof(DWORD);
    if (fits) return "";
    const bool hasDefault = setting.byDefault != keldwick::NoDefault;
    return std::string("is of type ") + TypeWord(value.type) + ", not " + TypeWord(setting.type) +
           ": the agent cannot read it" +
           (hasDefault ? ", and takes " + std::to_string(setting.byDefault) + " at its next start" : "");
}

std::string LogSizeFault(const win32::REG_VALUE& value) {
    const auto taken = [](DWORD bytes) { return "a log takes " + std::to_string(bytes) + " bytes"; };
    const uint64_t size = NumberOf(value.data);
    if (value.type != REG_DWORD || value.data.size() != sizeof(DWORD))
        return std::string("is of type ") + TypeWord(value.type) + ", not dword: " + taken(win32::DefaultMaxSize);
    if (size == 0) return "is 0: " + taken(win32::DefaultMaxSize);
    if (size < win32::SmallestLog) return "is less than a log can have: " + taken(win32::SmallestLog);
    return size > win32::LargestLog ? "is more than a log can have: " + taken(win32::LargestLog) : "";
}

}  // namespace

std::string HostFault(const std::string& host) {
    if (IsAddress(host)) return "";
    if (host.find("://") != std::string::npos) return "is a URL: a host's name or address alone is wanted";
    const auto odd = [](unsigned char unit) { return unit <= ' ' || unit == 0x7f; };
    if (std::any_of(host.begin(), host.end(), odd))
        return "holds a blank or control character: no host has such a name";
    if (host.find_first_of("[]:") != std::string::npos)
        return "is neither a name nor an address: the ports are fixed, 1308 for TLS and 1306 for plain TCP";
    const auto foreign = [](unsigned char unit) { return unit < 0x80 && !IsOfNames(unit); };
    if (std::any_of(host.begin(), host.end(), foreign) || host.starts_with('.') || host.find("..") != std::string::npos)
        return "is not a host's name";
    if (EndsInNumber(host)) return "is neither a name nor an IPv4 address";
    if (host.size() > MaxHostBytes) return "is longer than a host's name can be";
    return "";
}

std::string SettingFault(std::u16string_view name, const win32::REG_VALUE& value) {
    if (IsLogSize(name)) return LogSizeFault(value);
    const keldwick::SETTING_INFO* const setting = FindSetting(name);
    if (setting == nullptr) return "";
    if (std::string fault = TypeFault(*setting, value); !fault.empty()) return fault;
    for (const RULE& rule : Rules) {
        if (!win32::SameName(rule.name, name)) continue;
        if (rule.ofText != nullptr) return rule.ofText(win32::ToUtf8(win32::BytesText(value.data)));
        return rule.ofNumber(static_cast<DWORD>(NumberOf(value.data)));
    }
    return "";
}

void WarnOfSetting(std::u16string_view name, const win32::REG_VALUE& value) {
    const std::string fault = SettingFault(name, value);
    if (fault.empty()) return;
    const std::string text = win32::ToUtf8(name) + " = " + ExplainValue(name, value) + ": " + fault;
    std::fprintf(stderr, "keldwickctl: warning: %s\n", SafeText(text).c_str());
}

}  // namespace tools
