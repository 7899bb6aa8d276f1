// The registry calls of <windows.h> over the machine root's registry.reg: handles, their keys and notifications.
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <set>

#include "win32/registry/store.h"
#include "win32/sync/kernel_object.h"
#include "win32/text/last_error.h"
#include "win32/text/utf.h"

using namespace win32;

namespace {

// What an HKEY stands for: a key's path in a store, with the access it was opened for and its notification.
struct OPEN_KEY {
    OPEN_KEY(REG_STORE& keyStore, REG_PATH keyPath, REGSAM allowed)
        : store(keyStore), path(std::move(keyPath)), access(allowed) {}
    ~OPEN_KEY() { Close(); }
    OPEN_KEY(const OPEN_KEY&) = delete;
    OPEN_KEY& operator=(const OPEN_KEY&) = delete;

    REG_STORE& store;
    const REG_PATH path;
    const REGSAM access;

    // Arms the notification: `event` is signalled once when the key's own values differ from what was last reported,
    // that is at once when they changed since the last signal. The first arming reports what it finds. A key that is
    // not there has no values: who edits the file may bring it back.
    LSTATUS Arm(std::shared_ptr<KERNEL_OBJECT> event);
    void Close();  // an armed notification is signalled, as Windows does it

private:
    void SignalIfChanged();  // needs the notifications' lock
    static void SignalChanged();

    bool reporting = false;  // `reported` means something
    bool existed = false;
    REG_VALUES reported;
    std::shared_ptr<KERNEL_OBJECT> armed;
};

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

// Writes to the debugger what is wrong with the registry's file, once for each fault.
void ComplainOnce(REG_STORE& store) {
    const std::string problem = store.TakeProblem();
    if (!problem.empty()) OutputDebugStringW(ToUtf16("Registry file " + problem + ". It is not used.\n").c_str());
}

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

// A new handle; below 0x80000000, so that it is no predefined key, and not used again for a long time.
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

// The key of a handle; null: no such handle. One root key is predefined.
std::shared_ptr<OPEN_KEY> KeyOf(HKEY handle) {
    if (handle == HKEY_LOCAL_MACHINE)
        return std::make_shared<OPEN_KEY>(REG_STORE::Current(), REG_PATH{u"HKEY_LOCAL_MACHINE"}, KEY_ALL_ACCESS);
    KEY_TABLE& table = Table();
    const std::lock_guard guard(table.lock);
    const auto key = table.keys.find(reinterpret_cast<uintptr_t>(handle));
    return key == table.keys.end() ? nullptr : key->second;
}

// Takes the handle out of the table; null: no such handle.
std::shared_ptr<OPEN_KEY> LeaveKey(HKEY handle) {
    KEY_TABLE& table = Table();
    const std::lock_guard guard(table.lock);
    const auto key = table.keys.find(reinterpret_cast<uintptr_t>(handle));
    if (key == table.keys.end()) return nullptr;
    std::shared_ptr<OPEN_KEY> left = std::move(key->second);
    table.keys.erase(key);
    return left;
}

// The tree that the key stands in; null: `status` says why the key cannot be used.
std::shared_ptr<const REG_TREE> TreeOf(const OPEN_KEY& key, LSTATUS& status) {
    DWORD error = ERROR_SUCCESS;
    std::shared_ptr<const REG_TREE> tree = key.store.Tree(&error);
    ComplainOnce(key.store);
    status = static_cast<LSTATUS>(error);
    return tree;
}

// A key's subkey, whether it is there or not; null or empty: the key itself.
struct SUBKEY {
    std::shared_ptr<OPEN_KEY> key;
    REG_PATH path;
    std::shared_ptr<const REG_TREE> tree;
};

LSTATUS FindSubKey(HKEY handle, LPCWSTR name, SUBKEY& subKey) {
    subKey.key = KeyOf(handle);
    if (!subKey.key) return ERROR_INVALID_HANDLE;
    subKey.path = subKey.key->path;
    if (name != nullptr && !SplitKeyPath(name, subKey.path)) return static_cast<LSTATUS>(GetLastError());
    LSTATUS status = ERROR_SUCCESS;
    subKey.tree = TreeOf(*subKey.key, status);
    return status;
}

// Changes a key's values under the file's lock.
LSTATUS ChangeKey(HKEY handle, const std::function<DWORD(REG_TREE&, REG_NODE&)>& edit) {
    const std::shared_ptr<OPEN_KEY> key = KeyOf(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    if ((key->access & KEY_SET_VALUE) == 0) return ERROR_ACCESS_DENIED;
    const DWORD error = key->store.Change([&](REG_TREE& tree) -> DWORD {
        if (tree.Find(key->path) == nullptr) return ERROR_KEY_DELETED;
        return edit(tree, *tree.Make(key->path));
    });
    ComplainOnce(key->store);
    return static_cast<LSTATUS>(error);
}

// The protocol of calls that give data: the type, the size needed, the data when there is room.
LSTATUS GiveValue(const REG_VALUE& value, LPDWORD type, LPBYTE data, LPDWORD bytes) {
    if (type != nullptr) *type = value.type;
    if (bytes == nullptr) return ERROR_SUCCESS;
    const DWORD room = *bytes;
    *bytes = static_cast<DWORD>(value.data.size());
    if (data == nullptr) return ERROR_SUCCESS;
    if (room < *bytes) return ERROR_MORE_DATA;
    if (!value.data.empty()) std::memcpy(data, value.data.data(), value.data.size());
    return ERROR_SUCCESS;
}

}  // namespace

LSTATUS WINAPI RegOpenKeyExW(HKEY handle, LPCWSTR subKey, DWORD, REGSAM access, PHKEY result) {
    if (result == nullptr) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    SUBKEY found;
    if (const LSTATUS status = FindSubKey(handle, subKey, found); status != ERROR_SUCCESS) return status;
    if (found.tree->Find(found.path) == nullptr) return ERROR_FILE_NOT_FOUND;
    *result = EnterKey(std::make_shared<OPEN_KEY>(found.key->store, std::move(found.path), access));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegCreateKeyExW(HKEY handle, LPCWSTR subKey, DWORD reserved, LPWSTR, DWORD options, REGSAM access,
                               const LPSECURITY_ATTRIBUTES, PHKEY result, LPDWORD disposition) {
    if (result == nullptr || subKey == nullptr || reserved != 0) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    if (options != REG_OPTION_NON_VOLATILE) return ERROR_NOT_SUPPORTED;
    SUBKEY found;
    if (const LSTATUS status = FindSubKey(handle, subKey, found); status != ERROR_SUCCESS) return status;
    bool created = false;
    if (found.tree->Find(found.path) == nullptr) {
        const DWORD error = found.key->store.Change([&](REG_TREE& fresh) -> DWORD {
            REG_NODE* const made = fresh.Make(found.path, &created);
            if (made == nullptr) return ERROR_NO_SYSTEM_RESOURCES;
            made->listed = true;
            return ERROR_SUCCESS;
        });
        ComplainOnce(found.key->store);
        if (error != ERROR_SUCCESS) return static_cast<LSTATUS>(error);
    }
    if (disposition != nullptr) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *result = EnterKey(std::make_shared<OPEN_KEY>(found.key->store, std::move(found.path), access));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegQueryValueExW(HKEY handle, LPCWSTR name, LPDWORD reserved, LPDWORD type, LPBYTE data, LPDWORD bytes) {
    if (reserved != nullptr || (data != nullptr && bytes == nullptr)) return ERROR_INVALID_PARAMETER;
    const std::shared_ptr<OPEN_KEY> key = KeyOf(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    if ((key->access & KEY_QUERY_VALUE) == 0) return ERROR_ACCESS_DENIED;
    LSTATUS status = ERROR_SUCCESS;
    const std::shared_ptr<const REG_TREE> tree = TreeOf(*key, status);
    if (!tree) return status;
    const REG_NODE* const node = tree->Find(key->path);
    if (node == nullptr) return ERROR_KEY_DELETED;
    const REG_VALUE* const value = FindValue(*node, name != nullptr ? name : u"");
    if (value == nullptr) return ERROR_FILE_NOT_FOUND;
    return GiveValue(*value, type, data, bytes);
}

LSTATUS WINAPI RegSetValueExW(HKEY handle, LPCWSTR name, DWORD reserved, DWORD type, const BYTE* data, DWORD bytes) {
    const std::u16string_view valueName = name != nullptr ? name : u"";
    if (reserved != 0 || valueName.size() > MaxValueNameUnits || !WritableName(valueName)) {
        return ERROR_INVALID_PARAMETER;
    }
    if (data == nullptr && bytes > 0) return ERROR_NOACCESS;
    if (bytes > MaxValueBytes) return ERROR_NO_SYSTEM_RESOURCES;
    return ChangeKey(handle, [&](REG_TREE& tree, REG_NODE& node) -> DWORD {
        std::vector<BYTE> copy;
        if (bytes > 0) copy.assign(data, data + bytes);
        const bool set = tree.SetValue(node, valueName, type, std::move(copy)) != nullptr;
        return set ? ERROR_SUCCESS : ERROR_NO_SYSTEM_RESOURCES;
    });
}

LSTATUS WINAPI RegDeleteValueW(HKEY handle, LPCWSTR name) {
    return ChangeKey(handle, [&](REG_TREE& tree, REG_NODE& node) -> DWORD {
        return tree.DeleteValue(node, name != nullptr ? name : u"") ? ERROR_SUCCESS : ERROR_FILE_NOT_FOUND;
    });
}

// Value changes of the key itself, asynchronously: what the agent asks for and no more.
LSTATUS WINAPI RegNotifyChangeKeyValue(HKEY handle, BOOL subtree, DWORD filter, HANDLE event, BOOL asynchronous) {
    if (handle == HKEY_LOCAL_MACHINE) return ERROR_NOT_SUPPORTED;
    const std::shared_ptr<OPEN_KEY> key = KeyOf(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    if ((key->access & KEY_NOTIFY) == 0) return ERROR_ACCESS_DENIED;
    if (filter == 0 || (asynchronous && event == nullptr)) return ERROR_INVALID_PARAMETER;
    if (subtree || !asynchronous || filter != REG_NOTIFY_CHANGE_LAST_SET) return ERROR_NOT_SUPPORTED;
    std::shared_ptr<KERNEL_OBJECT> object = ObjectOf(event);
    if (!object) return ERROR_INVALID_HANDLE;
    return key->Arm(std::move(object));
}

LSTATUS WINAPI RegCloseKey(HKEY handle) {
    if (handle == HKEY_LOCAL_MACHINE) return ERROR_SUCCESS;
    const std::shared_ptr<OPEN_KEY> key = LeaveKey(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    key->Close();
    return ERROR_SUCCESS;
}
