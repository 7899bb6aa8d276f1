#include "tools/common/verdicts.h"

#include "directory/name_translation.h"
#include "identity/logon_strings.h"
#include "platform/ip_address.h"
#include "win32/text/utf.h"

namespace tools {
namespace {

using namespace keldwick;

std::string Utf8(const WCHAR* text) { return win32::ToUtf8(text); }

// Why a logon of that type is none; empty: it is one.
std::string TypeRefusal(const WCHAR* text, bool personalOnly) {
    DWORD type = 0;
    if (!ParseLogonType(text, type)) return "a logon type that is no number";
    NUMBER_TEXT number;
    return !personalOnly || IsPersonalLogonType(type) ? std::string()
                                                      : "logon type " + Utf8(LogonTypeName(type, number));
}

VERDICT Refused(const std::string& why) { return {false, why, {}, {}}; }

// As the agent reports it.
std::string ComputerOf(const WCHAR* domain, const WCHAR* computer) {
    return Utf8(TrimDomainSuffix(QualifiedName(domain, computer).Text()).Text());
}

constexpr const char* OnBehalf = "made by a process on a user's behalf";
constexpr const char* Computers = "a computer's account";

}  // namespace

VERDICT VERDICTS::Of(const EVENTLOGRECORD& record) {
    strings.Decode(record);
    const auto needs = [this](DWORD count) { return strings.Count() < count; };
    constexpr const char* TooFew = "too few strings";
    switch (record.EventID) {
        case 4624:
            return needs(20) ? Refused(TooFew) : OfAccountLogon();
        case 528:
            return needs(15) ? Refused(TooFew) : OfLocalLogon();
        case 540:
            return needs(15) ? Refused(TooFew) : OfLogon();
        case 673:
            return needs(8) ? Refused(TooFew) : OfTicket(record);
        case 4634:
        case 538:
            return Refused("a logoff, which ends nothing");
        default:
            return Refused("event " + std::to_string(record.EventID) + ", which the agent does not read");
    }
}

// The logon of the user at the address, by their positions, refused for the reason given or for the address.
VERDICT VERDICTS::Logon(DWORD domain, DWORD user, DWORD ipText, std::string refusal, bool fromLoopback) {
    fullUser = QualifiedName(strings[domain], strings[user]);
    IP_ADDRESS address;
    const bool parsed = ParseAddress(address, strings[ipText]);
    if (refusal.empty() && !parsed) refusal = "no IP address";
    if (refusal.empty() && !fromLoopback && IsLoopback(address)) refusal = "a loopback address";
    if (parsed) place.assign(reinterpret_cast<const char*>(AddressBytes(address)), AddressLength(address));
    return {refusal.empty(), refusal, Utf8(TrimDomainSuffix(fullUser.Text()).Text()), Utf8(strings[ipText])};
}

VERDICT VERDICTS::OfAccountLogon() {
    std::string refusal = TypeRefusal(strings[8], false);
    if (refusal.empty() && !EqualsText(strings[0], TEXT("S-1-0-0"))) refusal = OnBehalf;
    if (refusal.empty() && EqualsText(strings[4], TEXT("S-1-5-7"))) refusal = "an anonymous logon";
    if (refusal.empty()) refusal = TypeRefusal(strings[8], true);
    if (refusal.empty() && IsComputerAccount(strings[5])) refusal = Computers;
    const bool named = *strings[11] != 0 && !EqualsText(strings[11], NothingGiven);
    return ReportOrRenew(Logon(6, 5, 18, refusal, false),
                         named ? ComputerOf(strings[6], strings[11]) : "the computer by the address's name");
}

// Without a look at who is known at the address.
VERDICT VERDICTS::OfLocalLogon() {
    VERDICT logon = Logon(1, 0, 13, TypeRefusal(strings[3], true), false);
    if (!logon.reported) return logon;
    logon.why = "on " + ComputerOf(strings[1], strings[6]);
    users[place].push_back(TrimDomainSuffix(fullUser.Text()));
    return logon;
}

VERDICT VERDICTS::OfLogon() {
    std::string refusal;
    for (const DWORD caller : {8, 9, 10, 11})
        if (!EqualsText(strings[caller], NothingGiven)) refusal = OnBehalf;
    if (refusal.empty() && IsComputerAccount(strings[0])) refusal = Computers;
    if (refusal.empty()) refusal = TypeRefusal(strings[3], false);
    if (refusal.empty() && *strings[0] == 0 && *strings[1] == 0) refusal = "no user name";
    return ReportOrRenew(Logon(1, 0, 13, refusal, true), "the computer that a ticket before it names");
}

// A ticket is never reported; it names the computer of the logon after it.
VERDICT VERDICTS::OfTicket(const EVENTLOGRECORD& record) const {
    if (!EqualsText(strings[7], NothingGiven)) return Refused("a ticket that was refused");
    if (!IsComputerAccount(strings[2])) return Refused("a ticket for no computer");
    STRING computer(strings[2]);
    computer.TrimEnd(1);
    if (computer.EqualsNoCase(ComputerName(record))) return Refused("a ticket for the controller itself");
    return Refused("a ticket, which names the computer of a logon that follows");
}

// By who is known at the address. The full name is compared with the reported one, which has lost its domain's suffix.
VERDICT VERDICTS::ReportOrRenew(VERDICT logon, const std::string& computer) {
    if (!logon.reported) return logon;
    logon.why = "on " + computer;
    std::deque<STRING>& known = users[place];
    if (!known.empty() && known.front().EqualsNoCase(fullUser)) {
        logon.reported = false;
        logon.why = "known at this address already, and starts its time again";
        return logon;
    }
    if (!known.empty()) {
        logon.why += "; " + Utf8(known.front().Text()) + " is reported as logged off";
        known.pop_front();
    }
    known.push_back(TrimDomainSuffix(fullUser.Text()));
    return logon;
}

}  // namespace tools
