#include "win32/registry/open_key.h"

#include "win32/text/utf.h"

#include <map>
#include <mutex>
#include <set>

namespace win32 {

namespace {

constexpr uintptr_t FirstHandle = 0x40000000, LastHandle = 0x7FFFFFFC, HandleStep = 4;

struct KEY_TABLE {
    std::mutex lock;
    std::map<uintptr_t, std::shared_ptr<OPEN_KEY>> keys;
    uintptr_t next = FirstHandle;
};

// The keys with a notification armed.
struct NOTIFICATIONS {
    std::mutex lock;
    std::set<OPEN_KEY*> keys;
};

// Neither is ever destroyed: the watcher thread may use them at any time.
KEY_TABLE& Table() {
    static auto* const table = new KEY_TABLE;
    return *table;
}

NOTIFICATIONS& Notifications() {
    static auto* const notifications = new NOTIFICATIONS;
    return *notifications;
}

const char16_t* PredefinedName(HKEY handle) {
    if (handle == HKEY_CLASSES_ROOT) return u"HKEY_CLASSES_ROOT";
    if (handle == HKEY_CURRENT_USER) return u"HKEY_CURRENT_USER";
    if (handle == HKEY_LOCAL_MACHINE) return u"HKEY_LOCAL_MACHINE";
    if (handle == HKEY_USERS) return u"HKEY_USERS";
    return nullptr;
}

}  // namespace

LSTATUS OPEN_KEY::Arm(std::shared_ptr<KERNEL_OBJECT> event) {
    store.Watch(SignalChanged);
    const std::lock_guard guard(Notifications().lock);
    armed = std::move(event);
    Notifications().keys.insert(this);
    SignalIfChanged();
    return ERROR_SUCCESS;
}

void OPEN_KEY::Close() {
    const std::lock_guard guard(Notifications().lock);
    if (armed) SignalEventObject(*armed);
    armed.reset();
    Notifications().keys.erase(this);
}

void OPEN_KEY::SignalIfChanged() {
    const std::shared_ptr<const REG_TREE> tree = store.Tree();
    if (!tree) return;
    const REG_NODE* const key = tree->Find(path);
    const REG_VALUES none;
    const REG_VALUES& now = key != nullptr ? key->values : none;
    const bool changed = reporting && (existed != (key != nullptr) || !SameValues(reported, now));
    if (reporting && !changed) return;
    reporting = true;
    existed = key != nullptr;
    reported = now;
    if (!changed) return;
    SignalEventObject(*armed);
    armed.reset();
    Notifications().keys.erase(this);
}

void OPEN_KEY::SignalChanged() {
    std::set<REG_STORE*> stores;
    {
        const std::lock_guard guard(Notifications().lock);
        const std::set<OPEN_KEY*> keys = Notifications().keys;
        for (OPEN_KEY* key : keys) {
            key->SignalIfChanged();
            stores.insert(&key->store);
        }
    }
    for (REG_STORE* store : stores) ComplainOnce(*store);
}

HKEY EnterKey(std::shared_ptr<OPEN_KEY> key) {
    KEY_TABLE& table = Table();
    const std::lock_guard guard(table.lock);
    while (table.keys.contains(table.next)) {
        table.next = table.next >= LastHandle ? FirstHandle : table.next + HandleStep;
    }
    const uintptr_t handle = table.next;
    table.next = handle >= LastHandle ? FirstHandle : handle + HandleStep;
    table.keys.emplace(handle, std::move(key));
    return reinterpret_cast<HKEY>(handle);
}

std::shared_ptr<OPEN_KEY> KeyOf(HKEY handle) {
    if (const char16_t* const name = PredefinedName(handle)) {
        return std::make_shared<OPEN_KEY>(REG_STORE::Current(), REG_PATH{name}, KEY_ALL_ACCESS);
    }
    KEY_TABLE& table = Table();
    const std::lock_guard guard(table.lock);
    const auto key = table.keys.find(reinterpret_cast<uintptr_t>(handle));
    return key == table.keys.end() ? nullptr : key->second;
}

std::shared_ptr<OPEN_KEY> LeaveKey(HKEY handle) {
    KEY_TABLE& table = Table();
    const std::lock_guard guard(table.lock);
    const auto key = table.keys.find(reinterpret_cast<uintptr_t>(handle));
    if (key == table.keys.end()) return nullptr;
    std::shared_ptr<OPEN_KEY> left = std::move(key->second);
    table.keys.erase(key);
    return left;
}

bool IsPredefined(HKEY handle) { return PredefinedName(handle) != nullptr; }

void ComplainOnce(REG_STORE& store) {
    const std::string problem = store.TakeProblem();
    if (!problem.empty()) OutputDebugStringW(ToUtf16("Registry file " + problem + ". It is not used.\n").c_str());
}

}  // namespace win32
