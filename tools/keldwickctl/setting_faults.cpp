#include "tools/keldwickctl/setting_faults.h"

#include <arpa/inet.h>

#include <algorithm>
#include <cstdio>

#include "diagnostics/debug_output.h"
#include "service/settings.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

constexpr DWORD MaxMinutes = MAXDWORD / 60000;  // above, the milliseconds do not fit and wrap
constexpr DWORD MaxLookupMs = 60000;
constexpr size_t MaxHostBytes = 253;

bool IsAddress(std::string host) {
    in6_addr address;
    host.resize(std::min(host.size(), host.find('%')));  // an IPv6 address's zone
    return inet_pton(AF_INET6, host.c_str(), &address) == 1 || inet_pton(AF_INET, host.c_str(), &address) == 1;
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

}  // namespace

std::string HostFault(const std::string& host) {
    if (IsAddress(host)) return "";
    if (host.find("://") != std::string::npos) return "is a URL: a host's name or address alone is wanted";
    const auto odd = [](unsigned char unit) { return unit <= ' ' || unit == 0x7f; };
    if (std::any_of(host.begin(), host.end(), odd))
        return "holds a blank or control character: no host has such a name";
    if (host.find_first_of("[]:") != std::string::npos)
        return "is neither a name nor an address: the ports are fixed, 1308 for TLS and 1306 for plain TCP";
    if (host.find_first_of("/\\@,;\"'") != std::string::npos) return "is not a host's name";
    if (host.size() > MaxHostBytes) return "is longer than a host's name can be";
    return "";
}

std::string SettingFault(std::u16string_view name, const win32::REG_VALUE& value) {
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
