#include "win32/directory/ldap_connection.h"

#include <ldap.h>
#include <sasl/sasl.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <mutex>
#include <system_error>
#include <thread>
#include <utility>

#include "win32/directory/directory_text.h"

namespace win32 {

namespace {

constexpr const char* SystemCaFile = "/etc/ssl/certs/ca-certificates.crt";

constexpr size_t MaxMessageBytes = size_t{16} << 20;  // of one entry
constexpr size_t MaxAnswerBytes = size_t{64} << 20;   // of all the values of an answer
constexpr size_t MaxAheadBytes = size_t{1} << 20;     // the same of one that was asked for ahead
constexpr size_t MaxAhead = 64;                       // searches under way

// Controls of a domain controller: with each DN comes the object's SID; no referrals to the domains below are put
// together, which are never followed.
constexpr const char* ExtendedDnControl = "1.2.840.113556.1.4.529";
constexpr const char* DomainScopeControl = "1.2.840.113556.1.4.1339";

constexpr HRESULT OperationsError = HRESULT(0x80072020u);     // ERROR_DS_OPERATIONS_ERROR
constexpr HRESULT TimeLimitExceeded = HRESULT(0x80072022u);   // ERROR_DS_TIMELIMIT_EXCEEDED
constexpr HRESULT StrongAuthRequired = HRESULT(0x80072028u);  // ERROR_DS_STRONG_AUTH_REQUIRED

HRESULT ResultOf(int code) {
    switch (code) {
        case LDAP_SUCCESS:
            return S_OK;
        case LDAP_NO_SUCH_OBJECT:
            return DirectoryNoSuchObject;
        case LDAP_INVALID_DN_SYNTAX:
        case LDAP_NAMING_VIOLATION:
            return DirectoryInvalidDn;
        case LDAP_INVALID_CREDENTIALS:
            return DirectoryLogonFailure;
        case LDAP_REFERRAL:
            return DirectoryReferral;
        case LDAP_INSUFFICIENT_ACCESS:
            return E_ACCESSDENIED;
        case LDAP_STRONG_AUTH_REQUIRED:
            return StrongAuthRequired;
        case LDAP_CONFIDENTIALITY_REQUIRED:
            return DirectoryNeedsSecrecy;
        case LDAP_TIMELIMIT_EXCEEDED:
            return TimeLimitExceeded;
        case LDAP_TIMEOUT:
            return DirectoryTimeout;
        case LDAP_NO_MEMORY:
            return E_OUTOFMEMORY;
        case LDAP_SERVER_DOWN:
        case LDAP_CONNECT_ERROR:
        case LDAP_BUSY:
        case LDAP_UNAVAILABLE:
            return DirectoryServerDown;
        case LDAP_DECODING_ERROR:
            return DirectoryDecodingError;
        default:
            return OperationsError;
    }
}

std::string CaFileOf(const LDAP_ACCESS& access) { return access.caFile.empty() ? SystemCaFile : access.caFile; }

timeval TimeValue(std::chrono::seconds time) { return {time.count(), 0}; }

// While it lives, this thread's writing to a connection that the server has closed raises no signal: the library does
// not see to that itself.
class NO_PIPE_SIGNAL {
public:
    NO_PIPE_SIGNAL() {
        sigemptyset(&pipeSignal);
        sigaddset(&pipeSignal, SIGPIPE);
        sigset_t pending;
        sigpending(&pending);
        wasPending = sigismember(&pending, SIGPIPE) == 1;
        pthread_sigmask(SIG_BLOCK, &pipeSignal, &before);
    }
    ~NO_PIPE_SIGNAL() {
        const timespec none{};
        while (!wasPending && sigtimedwait(&pipeSignal, nullptr, &none) == SIGPIPE) continue;
        pthread_sigmask(SIG_SETMASK, &before, nullptr);
    }
    NO_PIPE_SIGNAL(const NO_PIPE_SIGNAL&) = delete;
    NO_PIPE_SIGNAL& operator=(const NO_PIPE_SIGNAL&) = delete;

private:
    sigset_t pipeSignal, before;
    bool wasPending = false;
};

// Answers nothing but what the mechanism suggests itself: the ticket says who this is.
int AcceptDefaults(LDAP*, unsigned, void*, void* questions) {
    for (sasl_interact_t* question = static_cast<sasl_interact_t*>(questions); question->id != SASL_CB_LIST_END;
         ++question) {
        question->result = question->defresult != nullptr ? question->defresult : "";
        question->len =
            static_cast<unsigned>(std::char_traits<char>::length(static_cast<const char*>(question->result)));
    }
    return LDAP_SUCCESS;
}

// Kerberos finds the keytab by the environment only. Tickets stay in this process's memory then.
void UseKeytab(const std::string& keytab) {
    static std::mutex lock;
    const std::lock_guard guard(lock);
    const char* const current = getenv("KRB5_CLIENT_KTNAME");
    if (keytab.empty() || (current != nullptr && keytab == current)) return;
    setenv("KRB5_CLIENT_KTNAME", keytab.c_str(), 1);
    setenv("KRB5CCNAME", "MEMORY:keldwick", 1);
}

// Of the attribute or of a part of it: its values are the DNs of an object's groups.
bool NamesGroups(std::string_view attribute) {
    constexpr std::string_view memberOf = "memberOf";
    return IsSameAttribute(attribute.substr(0, memberOf.size()), memberOf);
}

// Leaves the plain DNs. The SIDs, at their places.
std::vector<std::string> TakeSids(std::vector<std::string>& dns) {
    std::vector<std::string> sids;
    for (std::string& dn : dns) {
        EXTENDED_DN parsed = ParseExtendedDn(dn);
        sids.push_back(std::move(parsed.sid));
        dn = std::move(parsed.dn);
    }
    return sids;
}

// Takes one attribute; false: there is no further one, or it would take more memory than there is room.
bool ParseAttribute(LDAP* ldap, LDAPMessage* message, BerElement* position, DIRECTORY_ENTRY& entry, size_t& room,
                    bool& isTooLarge) {
    berval name{}, *values = nullptr;
    if (ldap_get_attribute_ber(ldap, message, position, &name, &values) != LDAP_SUCCESS || name.bv_val == nullptr)
        return false;
    const std::unique_ptr<berval, void (*)(void*)> owner(values, ber_memfree);  // their bytes lie in the message
    const auto take = [&](const berval& bytes) {
        const size_t taken = bytes.bv_len + 2 * sizeof(std::string);  // twice: a group has a SID, too
        isTooLarge = taken > room;
        room -= isTooLarge ? 0 : taken;
        return std::string(bytes.bv_val, isTooLarge ? 0 : bytes.bv_len);
    };
    std::vector<std::string>& texts = entry.attributes.emplace_back(take(name), std::vector<std::string>()).second;
    for (const berval* value = values; value != nullptr && value->bv_val != nullptr && !isTooLarge; ++value)
        texts.push_back(take(*value));
    return !isTooLarge;
}

// In one walk over the message: to ask for values by their attribute's name is a walk for each, over names that the
// server chooses. What cannot be read ends it. False: the entry takes more memory than there is room.
bool ParseEntry(LDAP* ldap, LDAPMessage* message, size_t room, DIRECTORY_ENTRY& entry) {
    BerElement* position = nullptr;
    berval dn{};
    if (ldap_get_dn_ber(ldap, message, &position, &dn) != LDAP_SUCCESS) return true;
    const std::unique_ptr<BerElement, void (*)(BerElement*)> owner(position, [](BerElement* one) { ber_free(one, 0); });
    if (dn.bv_val != nullptr) entry.dn = ParseExtendedDn({dn.bv_val, dn.bv_len}).dn;
    bool isTooLarge = false, hasGroups = false;
    while (ParseAttribute(ldap, message, position, entry, room, isTooLarge)) {
        auto& [name, values] = entry.attributes.back();
        if (!NamesGroups(name)) continue;
        std::vector<std::string> sids = TakeSids(values);
        const bool isWhole = name.find(';') == name.npos;
        if (isWhole && !std::exchange(hasGroups, true)) entry.groupSids = std::move(sids);
    }
    return !isTooLarge;
}

// What a search asks of the server beside its question; a server that does not know it leaves it.
class CONTROLS {
public:
    void Add(const char* oid) {
        controls[count].ldctl_oid = const_cast<char*>(oid);  // the library does not write to it
        list[count] = &controls[count];
        ++count;
    }
    LDAPControl** Get() { return list; }

private:
    LDAPControl controls[2] = {};
    LDAPControl* list[3] = {};  // up to a null
    size_t count = 0;
};

using MESSAGE = std::unique_ptr<LDAPMessage, int (*)(LDAPMessage*)>;

int NumberOf(LDAP_CONNECTION::SCOPE scope) {
    return scope == LDAP_CONNECTION::SCOPE::BASE       ? LDAP_SCOPE_BASE
           : scope == LDAP_CONNECTION::SCOPE::CHILDREN ? LDAP_SCOPE_ONELEVEL
                                                       : LDAP_SCOPE_SUBTREE;
}

bool UsesTls(const LDAP_ACCESS& access) { return access.startTls || access.uri.starts_with("ldaps://"); }

}  // namespace

// The library's handle. The thread that connects and the one that gives up on it may both be at work.
struct LDAP_CONNECTION::HANDLE_STATE {
    LDAP* ldap = nullptr;
    ldap_conncb callbacks{Connected, Closing, this};
    std::mutex lock;
    int socket = -1;             // while it is open
    bool reached = false;        // a socket has been connected
    bool noAuthorities = false;  // there are none to check the server's certificate with
    bool abandoned = false;      // no thread waits for it any more

    HANDLE_STATE() = default;
    HANDLE_STATE(const HANDLE_STATE&) = delete;
    HANDLE_STATE& operator=(const HANDLE_STATE&) = delete;
    ~HANDLE_STATE() {
        const NO_PIPE_SIGNAL quiet;
        if (ldap != nullptr) ldap_unbind_ext_s(ldap, nullptr, nullptr);
    }

    // Ends what waits on the socket: neither the TLS handshake nor a record cut short heeds the library's own limits.
    void Abandon() {
        const std::lock_guard guard(lock);
        abandoned = true;
        if (socket >= 0) shutdown(socket, SHUT_RDWR);
    }

    static int Connected(LDAP*, Sockbuf* buffer, LDAPURLDesc*, sockaddr*, ldap_conncb* callbacks) {
        HANDLE_STATE& state = *static_cast<HANDLE_STATE*>(callbacks->lc_arg);
        const std::lock_guard guard(state.lock);
        ber_sockbuf_ctrl(buffer, LBER_SB_OPT_GET_FD, &state.socket);
        ber_len_t longest = MaxMessageBytes;  // the library allocates what a message says it takes
        ber_sockbuf_ctrl(buffer, LBER_SB_OPT_SET_MAX_INCOMING, &longest);
        state.reached = true;
        const timeval limit = TimeValue(LdapAnswerTime);
        setsockopt(state.socket, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof(limit));
        setsockopt(state.socket, SOL_SOCKET, SO_SNDTIMEO, &limit, sizeof(limit));
        return state.abandoned ? -1 : 0;
    }
    static void Closing(LDAP*, Sockbuf* buffer, ldap_conncb* callbacks) {
        if (buffer == nullptr) return;  // the handle itself goes
        HANDLE_STATE& state = *static_cast<HANDLE_STATE*>(callbacks->lc_arg);
        const std::lock_guard guard(state.lock);
        state.socket = -1;
    }

    // False: there is no TLS context of our own. The library would use one made from its own configuration instead, and
    // trust authorities that no setting names.
    bool SetOptions(const LDAP_ACCESS& access) {
        const int version = LDAP_VERSION3, keepAliveIdle = 60, keepAliveProbes = 3, keepAliveInterval = 5;
        const unsigned unacknowledged = 10000;  // milliseconds
        const timeval connect = TimeValue(LdapConnectTime), answer = TimeValue(LdapAnswerTime);
        ldap_set_option(ldap, LDAP_OPT_PROTOCOL_VERSION, &version);
        ldap_set_option(ldap, LDAP_OPT_REFERRALS, LDAP_OPT_OFF);
        ldap_set_option(ldap, LDAP_OPT_NETWORK_TIMEOUT, &connect);
        ldap_set_option(ldap, LDAP_OPT_TIMEOUT, &answer);
        ldap_set_option(ldap, LDAP_OPT_X_KEEPALIVE_IDLE, &keepAliveIdle);
        ldap_set_option(ldap, LDAP_OPT_X_KEEPALIVE_PROBES, &keepAliveProbes);
        ldap_set_option(ldap, LDAP_OPT_X_KEEPALIVE_INTERVAL, &keepAliveInterval);
        ldap_set_option(ldap, LDAP_OPT_TCP_USER_TIMEOUT, &unacknowledged);
        ldap_set_option(ldap, LDAP_OPT_X_SASL_NOCANON, LDAP_OPT_ON);
        ldap_set_option(ldap, LDAP_OPT_CONNECT_CB, &callbacks);
        const int demand = LDAP_OPT_X_TLS_DEMAND, client = 0;
        ldap_set_option(ldap, LDAP_OPT_X_TLS_REQUIRE_CERT, &demand);
        ldap_set_option(ldap, LDAP_OPT_X_TLS_CACERTFILE, CaFileOf(access).c_str());
        return ldap_set_option(ldap, LDAP_OPT_X_TLS_NEWCTX, &client) == LDAP_OPT_SUCCESS;
    }

    int Connect(const LDAP_ACCESS& access) {
        int code = ldap_initialize(&ldap, access.uri.c_str());
        if (code != LDAP_SUCCESS) return code;
        noAuthorities = !SetOptions(access) && UsesTls(access);
        if (noAuthorities) return LDAP_CONNECT_ERROR;
        code = ldap_connect(ldap);
        if (code == LDAP_SUCCESS && access.startTls) code = ldap_start_tls_s(ldap, nullptr, nullptr);
        return code;
    }

    int Bind(const LDAP_ACCESS& access) const {
        if (access.bind == LDAP_BIND::GSSAPI)
            return ldap_sasl_interactive_bind_s(ldap, nullptr, "GSSAPI", nullptr, nullptr, LDAP_SASL_QUIET,
                                                AcceptDefaults, nullptr);
        std::string password = access.password;
        berval secret{password.size(), password.data()};
        return ldap_sasl_bind_s(ldap, access.user.c_str(), LDAP_SASL_SIMPLE, &secret, nullptr, nullptr, nullptr);
    }

    // Adds what the message brings to the answer. True: the answer is complete, and the code says how it ended. For the
    // library a message of another kind ends the search.
    bool Take(int kind, LDAPMessage* message, ANSWER& answer, int& code) const {
        if (kind == LDAP_RES_SEARCH_RESULT) {
            const int parsed = ldap_parse_result(ldap, message, &code, nullptr, nullptr, nullptr, nullptr, 0);
            if (parsed != LDAP_SUCCESS) code = parsed;
            return true;
        }
        if (kind == LDAP_RES_SEARCH_REFERENCE || kind == LDAP_RES_INTERMEDIATE) return false;
        code = LDAP_DECODING_ERROR;
        if (kind != LDAP_RES_SEARCH_ENTRY) return true;
        if (!ParseEntry(ldap, message, MaxAnswerBytes - answer.bytes, answer.found.emplace_back())) return true;
        answer.bytes += answer.found.back().Bytes();
        if (answer.found.size() > answer.limit || answer.bytes > MaxAnswerBytes) return true;
        code = LDAP_RESULTS_TOO_LARGE;
        return answer.isAhead && answer.bytes > MaxAheadBytes;
    }

    // The library's words for the code, and the server's or the TLS library's own.
    std::string Explain(int code) const {
        std::string text = ldap_err2string(code);
        char* detail = nullptr;
        if (ldap != nullptr) ldap_get_option(ldap, LDAP_OPT_DIAGNOSTIC_MESSAGE, &detail);
        if (detail != nullptr && *detail != '\0') text += std::string(" (") + detail + ")";
        ldap_memfree(detail);
        return text;
    }
};

bool FinishesWithin(std::chrono::milliseconds time, std::function<void()> work) {
    struct PROGRESS {
        std::mutex lock;
        std::condition_variable ended;
        bool hasEnded = false;
    };
    const auto progress = std::make_shared<PROGRESS>();
    const auto run = [progress, action = std::move(work)]() mutable {
        const NO_PIPE_SIGNAL quiet;
        action();
        action = nullptr;  // what it owns goes first
        const std::lock_guard guard(progress->lock);
        progress->hasEnded = true;
        progress->ended.notify_all();
    };
    try {
        std::thread(run).detach();
    } catch (const std::system_error&) {
        return false;  // no thread to be had
    }
    std::unique_lock guard(progress->lock);
    return progress->ended.wait_for(guard, time, [&] { return progress->hasEnded; });
}

LDAP_CONNECTION::LDAP_CONNECTION() : state(std::make_shared<HANDLE_STATE>()) {}

LDAP_CONNECTION::~LDAP_CONNECTION() {
    if (broken) state->Abandon();
}

HRESULT LDAP_CONNECTION::Fail(int code) {
    reason = state->Explain(code);
    if (code < 0) broken = true;
    return ResultOf(code);
}

HRESULT LDAP_CONNECTION::Connect(const LDAP_ACCESS& access) {
    const auto code = std::make_shared<std::atomic<int>>(LDAP_SUCCESS);
    if (!FinishesWithin(LdapConnectTime, [shared = state, access, code] { *code = shared->Connect(access); })) {
        state->Abandon();
        broken = true;
        reason = "no connection within 5 s";
        return DirectoryServerDown;
    }
    if (*code == LDAP_SUCCESS) return S_OK;
    const HRESULT result = Fail(*code);
    // The library says no more than that it failed.
    if (state->noAuthorities)
        reason = "the authorities that may sign its certificate cannot be read: " + CaFileOf(access);
    if (state->reached && UsesTls(access))
        reason +=
            "; it was reached, but the TLS handshake failed: is its certificate valid today, for this name, and "
            "signed by an authority of " +
            CaFileOf(access) + "?";
    return result == DirectoryTimeout ? DirectoryServerDown : result;
}

HRESULT LDAP_CONNECTION::Bind(const LDAP_ACCESS& access) {
    if (access.bind == LDAP_BIND::NONE) {
        identity = "the owner of the socket";
        return S_OK;
    }
    if (access.bind == LDAP_BIND::SIMPLE && !access.IsSecret()) {
        reason = "a password is not sent over a connection that others can read";
        return DirectoryNeedsSecrecy;
    }
    if (access.bind == LDAP_BIND::SIMPLE && access.password.empty()) {  // the server would take it as anonymous
        reason = "the password is empty";
        return DirectoryLogonFailure;
    }
    if (access.bind == LDAP_BIND::GSSAPI) UseKeytab(access.keytab);
    const auto code = std::make_shared<std::atomic<int>>(LDAP_SUCCESS);
    if (!FinishesWithin(LdapAnswerTime, [shared = state, access, code] { *code = shared->Bind(access); })) {
        state->Abandon();
        broken = true;
        reason = "no answer to the bind within 10 s";
        return DirectoryTimeout;
    }
    if (*code != LDAP_SUCCESS) {
        const HRESULT result = Fail(*code);
        // Without a ticket the library speaks of a local error, or of an unknown method without its plug-in.
        const bool noTicket = *code == LDAP_LOCAL_ERROR || *code == LDAP_AUTH_UNKNOWN;
        return noTicket ? DirectoryLogonFailure : result;
    }
    identity = access.user;
    char* name = nullptr;
    if (access.bind == LDAP_BIND::GSSAPI) ldap_get_option(state->ldap, LDAP_OPT_X_SASL_USERNAME, &name);
    if (name != nullptr) identity = name;
    ldap_memfree(name);
    return S_OK;
}

HRESULT LDAP_CONNECTION::ReadRoot() {
    std::vector<DIRECTORY_ENTRY> found;
    const HRESULT result = Search("", SCOPE::BASE, "(objectClass=*)", {"configurationNamingContext"}, 1, found);
    if (FAILED(result)) return result;
    configurationDn = found.empty() ? "" : found[0].First("configurationNamingContext");
    if (!configurationDn.empty()) return S_OK;
    reason = "it is not an Active Directory: it names no configurationNamingContext";
    return DirectoryNoSuchObject;
}

int LDAP_CONNECTION::Send(const std::string& base, int scope, const std::string& filter, const ATTRIBUTE_NAMES& wanted,
                          int limit, bool isAhead, bool withSids, int& number) {
    std::vector<char*> names;  // the library does not write to them
    for (const char* name : wanted) names.push_back(const_cast<char*>(name));
    names.push_back(nullptr);
    CONTROLS controls;
    if (scope != LDAP_SCOPE_BASE) controls.Add(DomainScopeControl);
    if (withSids && std::any_of(wanted.begin(), wanted.end(), NamesGroups)) controls.Add(ExtendedDnControl);
    timeval time = TimeValue(LdapAnswerTime);
    const int code = ldap_search_ext(state->ldap, base.c_str(), scope, filter.c_str(), names.data(), 0, controls.Get(),
                                     nullptr, &time, limit, &number);
    if (code == LDAP_SUCCESS) unanswered[number] = {static_cast<size_t>(limit), isAhead, {}, 0};
    return code;
}

// Takes the messages of all searches as they come, until the one of that number is answered: the library would hold
// whatever a server sends. The time that an answer may take begins again with each answer to what was sent before, 63
// at most: a server that takes its time for each is as good as one that is asked one by one. Result: the library's
// code, LDAP_DECODING_ERROR for more than was asked for.
int LDAP_CONNECTION::Receive(int number, std::vector<DIRECTORY_ENTRY>& found) {
    auto end = std::chrono::steady_clock::now() + Patience();
    for (;;) {
        const auto left = std::chrono::duration_cast<std::chrono::microseconds>(end - std::chrono::steady_clock::now());
        timeval time{left.count() / 1'000'000, left.count() % 1'000'000};
        LDAPMessage* taken = nullptr;
        const int kind = left.count() > 0 ? ldap_result(state->ldap, LDAP_RES_ANY, LDAP_MSG_ONE, &time, &taken) : 0;
        const MESSAGE message(taken, ldap_msgfree);
        int code = LDAP_TIMEOUT;
        if (kind < 0) ldap_get_option(state->ldap, LDAP_OPT_RESULT_CODE, &code);
        if (kind == 0) isLateAhead = Patience() == LdapAheadTime;
        if (kind <= 0) return code;
        const auto asked = unanswered.find(ldap_msgid(taken));
        if (asked == unanswered.end()) continue;  // the server's own word, or the rest of what was enough
        if (!state->Take(kind, taken, asked->second, code)) continue;
        const int answered = asked->first;
        ANSWER answer = std::move(asked->second);
        unanswered.erase(asked);
        const bool isDropped = answer.isAhead && !receiver;
        if (code < 0 && !isDropped) return code;
        if (code == LDAP_SIZELIMIT_EXCEEDED) code = LDAP_SUCCESS;
        if (answer.isAhead) {
            if (code != LDAP_SUCCESS) answer.found.clear();
            if (receiver) receiver(answered, answer.found);
            if (answered == number) return LDAP_SUCCESS;
            if (broken) return LDAP_SERVER_DOWN;
            if (answered < number) end = std::chrono::steady_clock::now() + Patience();
        } else if (answered == number) {
            found = std::move(answer.found);
            return code;
        }
    }
}

HRESULT LDAP_CONNECTION::Search(const std::string& base, SCOPE scope, const std::string& filter,
                                const ATTRIBUTE_NAMES& wanted, int limit, std::vector<DIRECTORY_ENTRY>& found) {
    found.clear();
    const NO_PIPE_SIGNAL quiet;
    int number = 0;
    int code = Send(base, NumberOf(scope), filter, wanted, limit, false, true, number);
    if (code == LDAP_SUCCESS) code = Receive(number, found);
    return code == LDAP_SUCCESS ? S_OK : Fail(code);
}

std::optional<int> LDAP_CONNECTION::SearchAhead(const std::string& base, SCOPE scope, const std::string& filter,
                                                const ATTRIBUTE_NAMES& wanted, bool withSids) {
    if (broken || unanswered.size() >= MaxAhead) return std::nullopt;
    const NO_PIPE_SIGNAL quiet;
    int number = 0;
    const int code = Send(base, NumberOf(scope), filter, wanted, MaxFound, true, withSids, number);
    if (code == LDAP_SUCCESS) return number;
    Fail(code);
    return std::nullopt;
}

void LDAP_CONNECTION::SendAnswersTo(RECEIVER to) {
    receiver = std::move(to);
    for (auto& [number, answer] : unanswered) answer.found.clear();
}

// A server may answer in order: what was sent ahead stands before the question, too.
std::chrono::seconds LDAP_CONNECTION::Patience() const {
    const auto isAhead = [](const auto& search) { return search.second.isAhead; };
    return std::any_of(unanswered.begin(), unanswered.end(), isAhead) ? LdapAheadTime : LdapAnswerTime;
}

HRESULT LDAP_CONNECTION::Await(int number) {
    const NO_PIPE_SIGNAL quiet;
    std::vector<DIRECTORY_ENTRY> none;
    const int code = Receive(number, none);
    return code == LDAP_SUCCESS ? S_OK : Fail(code);
}

}  // namespace win32
