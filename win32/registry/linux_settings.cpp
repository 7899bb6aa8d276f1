#include "win32/registry/linux_settings.h"

#include "win32/registry/store.h"

namespace win32 {

namespace {

std::optional<REG_VALUE> LinuxValue(const char16_t* name) {
    static const REG_PATH key{u"HKEY_LOCAL_MACHINE", u"SOFTWARE", u"Vantorel Systems", u"Keldwick", u"Linux"};
    const std::shared_ptr<const REG_TREE> tree = REG_STORE::Current().Tree();
    const REG_NODE* const node = tree ? tree->Find(key) : nullptr;
    const REG_VALUE* const value = node != nullptr ? FindValue(*node, name) : nullptr;
    return value != nullptr ? std::optional(*value) : std::nullopt;
}

}  // namespace

std::shared_ptr<const void> LinuxSettingsVersion(const std::string& root) { return REG_STORE::Of(root).Tree(); }

FILE_WATCH::MARK LinuxSettingsMark(const std::string& root) { return REG_STORE::Of(root).Mark(); }

bool LinuxSettingsAreWatched() { return REG_STORE::Current().IsWatched(); }

std::optional<DWORD> LinuxNumber(const char16_t* name) {
    const std::optional<REG_VALUE> value = LinuxValue(name);
    if (!value || value->type != REG_DWORD || value->data.size() != 4) return std::nullopt;
    const std::vector<BYTE>& data = value->data;
    return data[0] | data[1] << 8 | data[2] << 16 | static_cast<DWORD>(data[3]) << 24;
}

std::optional<std::u16string> LinuxText(const char16_t* name) {
    const std::optional<REG_VALUE> value = LinuxValue(name);
    if (!value || (value->type != REG_SZ && value->type != REG_EXPAND_SZ)) return std::nullopt;
    return BytesText(value->data);
}

}  // namespace win32
