#include "win32/directory/ldap_directory.h"

#include <map>
#include <mutex>

#include "win32/directory/directory_text.h"
#include "win32/sync/file_time.h"
#include "win32/text/numbers.h"

namespace win32 {

namespace {

using TIME = std::chrono::milliseconds;  // since the machine was started

constexpr std::chrono::seconds FailurePause{10};        // until a server that failed is tried again
constexpr std::chrono::milliseconds MaxRetryWait{200};  // of the look-up that has it tried again
constexpr std::chrono::minutes MaxRetryTime{1};         // longer than its steps together can take
constexpr std::chrono::minutes MaxIdleTime{5};          // servers close idle connections, often after 15 minutes
constexpr std::chrono::minutes MaxAge{15};              // of a connection, and so of the domains read with it
constexpr size_t MaxIdle = 8;
constexpr size_t MaxFailures = 64;
constexpr int MaxFound = 64;         // of one name: more than one is already too many
constexpr int MaxDomains = 1000;     // a server's usual limit for one answer
constexpr size_t MaxRanges = 10000;  // parts of one attribute
constexpr const char* AnyEntry = "(objectClass=*)";

// Everything that makes a connection another one.
std::string KeyOf(const LDAP_ACCESS& access) {
    std::string key;
    for (const std::string* part : {&access.uri, &access.user, &access.password, &access.keytab, &access.caFile})
        key += *part + '\0';
    return key + static_cast<char>('0' + static_cast<int>(access.bind)) + (access.startTls ? 's' : 'p');
}

// A connection with what it takes to ask by it.
struct OPEN_CONNECTION {
    LDAP_CONNECTION ldap;
    std::vector<DIRECTORY_DOMAIN> domains;
    const TIME since = Uptime();
};
using CONNECTION = std::unique_ptr<OPEN_CONNECTION>;

HRESULT OpenConnection(const LDAP_ACCESS& access, CONNECTION& connection) {
    connection = std::make_unique<OPEN_CONNECTION>();
    LDAP_CONNECTION& ldap = connection->ldap;
    HRESULT result = ldap.Connect(access);
    if (SUCCEEDED(result)) result = ldap.Bind(access);
    if (SUCCEEDED(result)) result = ldap.ReadRoot();
    if (SUCCEEDED(result)) result = SearchDomains(ldap, connection->domains);
    if (FAILED(result)) ComplainOnce(access.uri, access.uri + ": " + ldap.Reason());
    return result;
}

// Idle connections, and servers that have failed. When the pause after a failure is over the server is tried again
// beside the look-ups: one that lives answers before the first of them gives up, a dead one costs it a moment, and the
// others nothing.
class LDAP_POOL {
public:
    // Never destroyed: look-ups may go on while the process ends.
    static LDAP_POOL& Current() {
        static LDAP_POOL& pool = *new LDAP_POOL;
        return pool;
    }

    CONNECTION TakeIdle(const std::string& key) {
        const std::lock_guard guard(lock);
        const TIME now = Uptime();
        std::erase_if(idle, [now](const IDLE& one) {
            return one.since + MaxIdleTime < now || one.connection->since + MaxAge < now;
        });
        for (size_t i = idle.size(); i-- > 0;) {
            if (idle[i].key != key) continue;
            CONNECTION connection = std::move(idle[i].connection);
            idle.erase(idle.begin() + static_cast<ptrdiff_t>(i));
            return connection;
        }
        return nullptr;
    }

    void GiveBack(const std::string& key, CONNECTION connection) {
        const std::lock_guard guard(lock);
        if (idle.size() >= MaxIdle) idle.erase(idle.begin());
        idle.push_back({key, std::move(connection), Uptime()});
    }

    // S_OK: it has not failed, or has answered since.
    HRESULT LastFailure(const std::string& key, const LDAP_ACCESS& access) {
        if (IsRetryDue(key)) FinishesWithin(MaxRetryWait, [this, key, access] { Retry(key, access); });
        const std::lock_guard guard(lock);
        const auto found = failures.find(key);
        return found != failures.end() ? found->second.result : S_OK;
    }

    void RememberFailure(const std::string& key, HRESULT result) {
        const std::lock_guard guard(lock);
        if (failures.size() >= MaxFailures) failures.clear();
        failures[key] = {result, Uptime() + FailurePause};
        std::erase_if(idle, [&](const IDLE& one) { return one.key == key; });
    }

private:
    // True once: that caller tries.
    bool IsRetryDue(const std::string& key) {
        const std::lock_guard guard(lock);
        const auto found = failures.find(key);
        if (found == failures.end() || Uptime() < found->second.until) return false;
        found->second.until = Uptime() + MaxRetryTime;
        return true;
    }

    void Retry(const std::string& key, const LDAP_ACCESS& access) {
        CONNECTION connection;
        const HRESULT result = OpenConnection(access, connection);
        if (FAILED(result)) return RememberFailure(key, result);
        ForgetComplaints(access.uri);  // the next outage is worth a line again
        GiveBack(key, std::move(connection));
        const std::lock_guard guard(lock);
        failures.erase(key);
    }

    struct IDLE {
        std::string key;
        CONNECTION connection;
        TIME since;
    };
    struct FAILURE {
        HRESULT result;
        TIME until;
    };

    std::mutex lock;
    std::vector<IDLE> idle;
    std::map<std::string, FAILURE> failures;
};

// The part after `range`, which becomes the range of what was read. It must begin where the last one ended.
HRESULT ReadRange(LDAP_CONNECTION& ldap, const std::string& dn, const std::string& name,
                  std::optional<ATTRIBUTE_RANGE>& range, std::vector<std::string>& values) {
    const unsigned long next = *range->last + 1;
    const std::string wanted = name + ";range=" + std::to_string(next) + "-*";
    std::vector<DIRECTORY_ENTRY> found;
    const HRESULT result = ldap.Search(dn, LDAP_CONNECTION::SCOPE::BASE, AnyEntry, {wanted.c_str()}, MaxFound, found);
    if (FAILED(result)) return result;
    for (const DIRECTORY_ENTRY& entry : found)
        for (const auto& [partName, part] : entry.attributes) {
            const std::optional<ATTRIBUTE_RANGE> got = ParseRange(partName);
            if (!got || got->first != next || LowerName(partName).find(LowerName(name) + ";") != 0) continue;
            values.insert(values.end(), part.begin(), part.end());
            range = got;
            return S_OK;
        }
    return DirectoryDecodingError;
}

// A server may give a long attribute in parts: the rest is fetched and everything stands under the plain name.
HRESULT ReadRanges(LDAP_CONNECTION& ldap, const std::string& dn, DIRECTORY_ENTRY& entry) {
    for (size_t i = 0; i < entry.attributes.size(); ++i) {
        const std::string full = entry.attributes[i].first;
        std::optional<ATTRIBUTE_RANGE> range = ParseRange(full);
        if (!range) continue;
        const std::string name = full.substr(0, full.find(';'));
        std::vector<std::string> values = std::move(entry.attributes[i].second);
        for (size_t part = 0; range->last; ++part) {
            const HRESULT result = part < MaxRanges ? ReadRange(ldap, dn, name, range, values) : DirectoryDecodingError;
            if (FAILED(result)) return result;
        }
        std::erase_if(entry.attributes, [&](const auto& one) { return LowerName(one.first) == LowerName(name); });
        std::erase_if(entry.attributes, [&](const auto& one) { return one.first == full; });
        entry.attributes.insert(entry.attributes.begin(), {name, std::move(values)});
        i = 0;  // it stands first now
    }
    return S_OK;
}

HRESULT ReadEntry(LDAP_CONNECTION& ldap, const std::string& dn, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) {
    std::vector<DIRECTORY_ENTRY> found;
    const HRESULT result = ldap.Search(dn, LDAP_CONNECTION::SCOPE::BASE, AnyEntry, wanted, MaxFound, found);
    if (FAILED(result)) return result;
    if (found.empty()) return DirectoryNoSuchObject;  // there, but this user may not see it
    entry = std::move(found[0]);
    return ReadRanges(ldap, dn, entry);
}

// A target's servers. One of them is asked, over a connection taken out of the pool or opened, and given back; when it
// fails, the same question goes to the next one.
class LDAP_DIRECTORY final : public DIRECTORY {
public:
    explicit LDAP_DIRECTORY(std::vector<LDAP_ACCESS> targets) : servers(std::move(targets)) {}
    LDAP_DIRECTORY(const LDAP_DIRECTORY&) = delete;
    LDAP_DIRECTORY& operator=(const LDAP_DIRECTORY&) = delete;
    ~LDAP_DIRECTORY() override { LetGo(); }

    HRESULT Open() { return OpenFrom(0, DirectoryServerDown); }

    HRESULT Domains(std::vector<DIRECTORY_DOMAIN>& domains) override {
        if (!connection) return DirectoryServerDown;
        domains = connection->domains;
        return S_OK;
    }

    HRESULT Find(const std::string& base, const char* attribute, const std::string& value,
                 const ATTRIBUTE_NAMES& wanted, std::vector<DIRECTORY_ENTRY>& found) override {
        const std::string filter = "(" + std::string(attribute) + "=" + FilterText(value) + ")";
        return Ask([&](LDAP_CONNECTION& asked) {
            return asked.Search(base, LDAP_CONNECTION::SCOPE::SUBTREE, filter, wanted, MaxFound, found);
        });
    }

    HRESULT Read(const std::string& dn, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        return Ask([&](LDAP_CONNECTION& asked) { return ReadEntry(asked, dn, wanted, entry); });
    }

    HRESULT ReadSid(const std::string& sid, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        std::string dn = "<SID=";
        for (const char byte : sid) AppendHex(dn, static_cast<unsigned char>(byte));
        return Read(dn + ">", wanted, entry);
    }

private:
    // A server that is down, cannot be understood or says that it is busy has not answered.
    template <class QUESTION>
    HRESULT Ask(QUESTION question) {
        HRESULT result = DirectoryServerDown;
        while (connection) {
            result = question(connection->ldap);
            if (!connection->ldap.IsBroken() && result != DirectoryServerDown) return result;
            result = Reconnect(result);
        }
        return result;
    }

    // After a failure: to the same server once more when its kept connection turns out to be closed, else to the next.
    // Fails, without a connection, when none is left.
    HRESULT Reconnect(HRESULT failure) {
        if (connection->ldap.IsBroken() && failure == DirectoryServerDown && !isFresh) {
            failure = OpenFresh();
            if (SUCCEEDED(failure)) return S_OK;
        } else if (connection->ldap.IsBroken()) {
            const std::string& uri = servers[current].uri;
            ComplainOnce(uri, uri + ": " + connection->ldap.Reason());
            LDAP_POOL::Current().RememberFailure(key, failure);
        }
        LetGo();
        return OpenFrom(current + 1, failure);
    }

    // To the first server from there on that can be connected to; the failure is what has been so far.
    HRESULT OpenFrom(size_t server, HRESULT failure) {
        for (current = server; current < servers.size(); ++current) {
            failure = OpenCurrent();
            if (SUCCEEDED(failure)) break;
        }
        return failure;
    }

    HRESULT OpenCurrent() {
        key = KeyOf(servers[current]);
        const HRESULT failure = LDAP_POOL::Current().LastFailure(key, servers[current]);
        if (FAILED(failure)) return failure;
        connection = LDAP_POOL::Current().TakeIdle(key);
        isFresh = connection == nullptr;
        return isFresh ? OpenFresh() : S_OK;
    }

    HRESULT OpenFresh() {
        isFresh = true;
        const HRESULT result = OpenConnection(servers[current], connection);
        if (FAILED(result)) {
            connection.reset();
            LDAP_POOL::Current().RememberFailure(key, result);
        }
        return result;
    }

    void LetGo() {
        if (connection && !connection->ldap.IsBroken()) LDAP_POOL::Current().GiveBack(key, std::move(connection));
        connection.reset();
    }

    const std::vector<LDAP_ACCESS> servers;
    size_t current = 0;  // which of them
    std::string key;     // its
    CONNECTION connection;
    bool isFresh = false;
};

}  // namespace

HRESULT SearchDomains(LDAP_CONNECTION& connection, std::vector<DIRECTORY_DOMAIN>& domains) {
    std::vector<DIRECTORY_ENTRY> found;
    const HRESULT result =
        connection.Search("CN=Partitions," + connection.ConfigurationDn(), LDAP_CONNECTION::SCOPE::CHILDREN,
                          "(nETBIOSName=*)", {"nCName", "dnsRoot", "nETBIOSName"}, MaxDomains, found);
    if (FAILED(result)) return result;
    domains.clear();
    for (const DIRECTORY_ENTRY& entry : found)
        if (!entry.First("nCName").empty())
            domains.push_back({std::string(entry.First("nCName")), std::string(entry.First("dnsRoot")),
                               std::string(entry.First("nETBIOSName"))});
    return S_OK;
}

HRESULT OpenLdapDirectory(const DIRECTORY_TARGET& target, std::unique_ptr<DIRECTORY>& directory) {
    std::vector<LDAP_ACCESS> servers;
    std::string complaint;
    HRESULT result = FindLdapServers(target, servers, complaint);
    if (FAILED(result)) {
        ComplainOnce("the settings", complaint);
        return result;
    }
    auto opened = std::make_unique<LDAP_DIRECTORY>(std::move(servers));
    result = opened->Open();
    if (SUCCEEDED(result)) directory = std::move(opened);
    return result;
}

}  // namespace win32
