#include "win32/directory/ldap_directory.h"

#include "win32/directory/directory_text.h"
#include "win32/directory/look_ahead.h"
#include "win32/text/numbers.h"

namespace win32 {

namespace {

constexpr int MaxDomains = 1000;     // a server's usual limit for one answer
constexpr size_t MaxRanges = 10000;  // parts of one attribute

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

    HRESULT Domains(DIRECTORY_DOMAINS& domains) override {
        if (!connection) return DirectoryServerDown;
        domains = connection->domains;
        return S_OK;
    }

    HRESULT Find(const std::string& base, const char* attribute, const std::string& value,
                 const ATTRIBUTE_NAMES& wanted, std::vector<DIRECTORY_ENTRY>& found) override {
        const std::string filter = "(" + std::string(attribute) + "=" + FilterText(value) + ")";
        if (LOOK_AHEAD::IsFoundAlready(key, base + filter, found) && LOOK_AHEAD::Covers(wanted)) return S_OK;
        const bool isComputer = value.ends_with('$');  // which is asked for once, and not opened
        isWide = !isComputer && LOOK_AHEAD::FindsObjects() && LOOK_AHEAD::Covers(wanted);
        const HRESULT result = Ask([&](OPEN_CONNECTION& asked) {
            const auto search = [&](const ATTRIBUTE_NAMES& names) {
                return asked.ldap.Search(base, LDAP_CONNECTION::SCOPE::SUBTREE, filter, names, MaxFound, found);
            };
            const HRESULT more = isWide ? search(LOOK_AHEAD::Attributes) : S_FALSE;
            if (more == S_OK || asked.ldap.IsBroken()) return more;
            isWide = false;
            return search(wanted);
        });
        if (SUCCEEDED(result) && isWide && found.size() == 1) LOOK_AHEAD::KeepFound(key, base + filter, found[0]);
        return result;
    }

    HRESULT Read(const std::string& dn, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        isWide = false;
        ahead = LOOK_AHEAD::OpenOrFound(key, dn);
        const bool mayBeThere = ahead && LOOK_AHEAD::Covers(wanted);
        return Ask([&](OPEN_CONNECTION& asked) {
            const HRESULT taken = mayBeThere && ahead ? ahead->Take(asked, dn, entry) : S_FALSE;
            return taken == S_FALSE ? ReadEntry(asked.ldap, dn, wanted, entry) : taken;
        });
    }

    HRESULT ReadSid(const std::string& sid, const ATTRIBUTE_NAMES& wanted, DIRECTORY_ENTRY& entry) override {
        return Read(SidDn(sid), wanted, entry);
    }

    std::shared_ptr<void> ExpectGroupsOf(const DIRECTORY_ENTRY& object) override {
        if (!connection || (ahead && ahead->Key() != key)) return nullptr;
        if (!ahead && LOOK_AHEAD::IsHeld()) return nullptr;  // of another server, which failed within this report
        if (!ahead) ahead = std::make_shared<LOOK_AHEAD>(key);
        LOOK_AHEAD::Hold(ahead);
        ahead->Expect(*connection, object);
        return ahead;
    }

private:
    // A server that is down, cannot be understood or says that it is busy has not answered.
    template <class QUESTION>
    HRESULT Ask(QUESTION question) {
        HRESULT result = DirectoryServerDown;
        while (connection) {
            result = question(*connection);
            const bool isAnswer = !connection->ldap.IsBroken() && result != DirectoryServerDown;
            if (SUCCEEDED(result) || isAnswer) return result;
            result = Reconnect(result);
        }
        return result;
    }

    // After a failure: to the same server once more when its kept connection turns out to be closed, or when more was
    // asked than the question, else to the next. Fails, without a connection, when none is left.
    HRESULT Reconnect(HRESULT failure) {
        const bool isLate = connection->ldap.IsLateAhead();
        const bool isMoreAsked = isLate || ((isWide || connection->ldap.ReadsAhead()) && failure != DirectoryTimeout);
        if (isLate) LOOK_AHEAD::Pause();
        const bool isKeptOneClosed = !isFresh && failure == DirectoryServerDown;
        const bool isBroken = connection->ldap.IsBroken();
        if (ahead && isBroken) ahead->Stop();
        isWide = false;
        if (isBroken && (isMoreAsked || isKeptOneClosed)) {
            failure = OpenFresh();
            if (SUCCEEDED(failure)) return S_OK;
        } else if (isBroken) {
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
        ahead = LOOK_AHEAD::Open(key);
        if (ahead) connection = ahead->TakeConnection();
        if (!connection) connection = LDAP_POOL::Current().TakeIdle(key);
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
        if (ahead && connection && connection->ldap.IsBroken()) ahead->Stop();
        const bool isUseful = connection && !connection->ldap.IsBroken();
        if (isUseful && !(ahead && ahead->GiveBack(connection)))
            LDAP_POOL::Current().GiveBack(key, std::move(connection));
        connection.reset();
        ahead.reset();
    }

    const std::vector<LDAP_ACCESS> servers;
    size_t current = 0;  // which of them
    std::string key;     // its
    CONNECTION connection;
    bool isFresh = false;
    bool isWide = false;                // the question asks for more than its caller does
    std::shared_ptr<LOOK_AHEAD> ahead;  // of this thread's report
};

}  // namespace

HRESULT SearchDomains(LDAP_CONNECTION& connection, DIRECTORY_DOMAINS& domains) {
    std::vector<DIRECTORY_ENTRY> found;
    const HRESULT result =
        connection.Search("CN=Partitions," + connection.ConfigurationDn(), LDAP_CONNECTION::SCOPE::CHILDREN,
                          "(nETBIOSName=*)", {"nCName", "dnsRoot", "nETBIOSName"}, MaxDomains, found);
    if (FAILED(result)) return result;
    std::vector<DIRECTORY_DOMAIN> read;
    for (const DIRECTORY_ENTRY& entry : found)
        if (!entry.First("nCName").empty()) read.emplace_back(entry);
    domains = std::make_shared<const std::vector<DIRECTORY_DOMAIN>>(std::move(read));
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
