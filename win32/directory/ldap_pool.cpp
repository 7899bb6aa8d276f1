#include "win32/directory/ldap_pool.h"

#include "win32/directory/ldap_directory.h"

namespace win32 {

namespace {

constexpr std::chrono::seconds FailurePause{10};        // until a server that failed is tried again
constexpr std::chrono::milliseconds MaxRetryWait{200};  // of the look-up that has it tried again
constexpr std::chrono::minutes MaxRetryTime{1};         // longer than its steps together can take
constexpr std::chrono::minutes MaxIdleTime{5};          // servers close idle connections, often after 15 minutes
constexpr std::chrono::minutes MaxAge{15};              // of a connection, and so of the domains read with it
constexpr size_t MaxIdle = 8;
constexpr size_t MaxFailures = 64;

}  // namespace

std::string KeyOf(const LDAP_ACCESS& access) {
    std::string key;
    for (const std::string* part : {&access.uri, &access.user, &access.password, &access.keytab, &access.caFile})
        key += *part + '\0';
    return key + static_cast<char>('0' + static_cast<int>(access.bind)) + (access.startTls ? 's' : 'p');
}

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

LDAP_POOL& LDAP_POOL::Current() {
    static LDAP_POOL& pool = *new LDAP_POOL;
    return pool;
}

CONNECTION LDAP_POOL::TakeIdle(const std::string& key) {
    const std::lock_guard guard(lock);
    const TIME now = Uptime();
    std::erase_if(
        idle, [now](const IDLE& one) { return one.since + MaxIdleTime < now || one.connection->since + MaxAge < now; });
    for (size_t i = idle.size(); i-- > 0;) {
        if (idle[i].key != key) continue;
        CONNECTION connection = std::move(idle[i].connection);
        idle.erase(idle.begin() + static_cast<ptrdiff_t>(i));
        return connection;
    }
    return nullptr;
}

void LDAP_POOL::GiveBack(const std::string& key, CONNECTION connection) {
    const std::lock_guard guard(lock);
    if (idle.size() >= MaxIdle) idle.erase(idle.begin());
    idle.push_back({key, std::move(connection), Uptime()});
}

HRESULT LDAP_POOL::LastFailure(const std::string& key, const LDAP_ACCESS& access) {
    if (IsRetryDue(key)) FinishesWithin(MaxRetryWait, [this, key, access] { Retry(key, access); });
    const std::lock_guard guard(lock);
    const auto found = failures.find(key);
    return found != failures.end() ? found->second.result : S_OK;
}

void LDAP_POOL::RememberFailure(const std::string& key, HRESULT result) {
    const std::lock_guard guard(lock);
    if (failures.size() >= MaxFailures) failures.clear();
    failures[key] = {result, Uptime() + FailurePause};
    std::erase_if(idle, [&](const IDLE& one) { return one.key == key; });
}

bool LDAP_POOL::IsRetryDue(const std::string& key) {
    const std::lock_guard guard(lock);
    const auto found = failures.find(key);
    if (found == failures.end() || Uptime() < found->second.until) return false;
    found->second.until = Uptime() + MaxRetryTime;
    return true;
}

void LDAP_POOL::Retry(const std::string& key, const LDAP_ACCESS& access) {
    CONNECTION connection;
    const HRESULT result = OpenConnection(access, connection);
    if (FAILED(result)) return RememberFailure(key, result);
    ForgetComplaints(access.uri);  // the next outage is worth a line again
    GiveBack(key, std::move(connection));
    const std::lock_guard guard(lock);
    failures.erase(key);
}

}  // namespace win32
