// The registry calls of <windows.h> over the machine root's registry.reg.
#include "win32/registry/open_key.h"

#include "win32/text/last_error.h"

#include <cstring>

using namespace win32;

namespace {

constexpr REGSAM MaximumAllowed = 0x02000000, GenericAll = 0x10000000;

REGSAM Granted(REGSAM wanted) { return (wanted & (MaximumAllowed | GenericAll)) != 0 ? KEY_ALL_ACCESS : wanted; }

// The path of a key's subkey; ERROR_SUCCESS, or why it is none. Null or empty: the key itself.
LSTATUS SubKeyPath(const OPEN_KEY& key, LPCWSTR subKey, REG_PATH& path) {
    path = key.path;
    if (subKey == nullptr || SplitKeyPath(subKey, path)) return ERROR_SUCCESS;
    return static_cast<LSTATUS>(GetLastError());
}

// The tree that the key stands in; null: `status` says why the key cannot be used.
std::shared_ptr<const REG_TREE> TreeOf(const OPEN_KEY& key, LSTATUS& status) {
    DWORD error = ERROR_SUCCESS;
    std::shared_ptr<const REG_TREE> tree = key.store.Tree(&error);
    ComplainOnce(key.store);
    status = static_cast<LSTATUS>(error);
    return tree;
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
    const std::shared_ptr<OPEN_KEY> key = KeyOf(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    REG_PATH path;
    LSTATUS status = SubKeyPath(*key, subKey, path);
    if (status != ERROR_SUCCESS) return status;
    const std::shared_ptr<const REG_TREE> tree = TreeOf(*key, status);
    if (!tree) return status;
    if (tree->Find(path) == nullptr) return ERROR_FILE_NOT_FOUND;
    *result = EnterKey(std::make_shared<OPEN_KEY>(key->store, std::move(path), Granted(access)));
    return ERROR_SUCCESS;
}

LSTATUS WINAPI RegCreateKeyExW(HKEY handle, LPCWSTR subKey, DWORD reserved, LPWSTR, DWORD options, REGSAM access,
                               const LPSECURITY_ATTRIBUTES, PHKEY result, LPDWORD disposition) {
    if (result == nullptr || subKey == nullptr || reserved != 0) return ERROR_INVALID_PARAMETER;
    *result = nullptr;
    if (options != REG_OPTION_NON_VOLATILE) return ERROR_NOT_SUPPORTED;
    const std::shared_ptr<OPEN_KEY> key = KeyOf(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    REG_PATH path;
    LSTATUS status = SubKeyPath(*key, subKey, path);
    if (status != ERROR_SUCCESS) return status;
    const std::shared_ptr<const REG_TREE> tree = TreeOf(*key, status);
    if (!tree) return status;
    bool created = false;
    if (tree->Find(path) == nullptr) {
        const DWORD error = key->store.Change([&](REG_TREE& fresh) -> DWORD {
            REG_NODE* const made = fresh.Make(path, &created);
            if (made == nullptr) return ERROR_NO_SYSTEM_RESOURCES;
            made->listed = true;
            return ERROR_SUCCESS;
        });
        ComplainOnce(key->store);
        if (error != ERROR_SUCCESS) return static_cast<LSTATUS>(error);
    }
    if (disposition != nullptr) *disposition = created ? REG_CREATED_NEW_KEY : REG_OPENED_EXISTING_KEY;
    *result = EnterKey(std::make_shared<OPEN_KEY>(key->store, std::move(path), Granted(access)));
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
    if (IsPredefined(handle)) return ERROR_NOT_SUPPORTED;
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
    if (IsPredefined(handle)) return ERROR_SUCCESS;
    const std::shared_ptr<OPEN_KEY> key = LeaveKey(handle);
    if (!key) return ERROR_INVALID_HANDLE;
    key->Close();
    return ERROR_SUCCESS;
}
