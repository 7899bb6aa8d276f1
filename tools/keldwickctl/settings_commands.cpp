// keldwickctl settings list, get, set, delete: the values of the settings key and of the keys below it.
#include "tools/common/failure.h"
#include "tools/common/safe_text.h"
#include "tools/keldwickctl/commands.h"
#include "tools/keldwickctl/setting_faults.h"
#include "tools/keldwickctl/setting_values.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

#include <algorithm>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

namespace tools {
namespace {

using win32::REG_NODE;
using win32::REG_STORE;
using win32::REG_TREE;
using win32::REG_VALUE;

constexpr const char* NameHelp =
    "the value's name; those of a subkey as KEY\\NAME; any other in full, from HKEY_LOCAL_MACHINE on";

struct SETTING_OPTIONS {
    std::string name, type;
    std::vector<std::string> values;
};

constexpr std::u16string_view RootKey = u"HKEY_LOCAL_MACHINE\\";

// "Linux\OsMajor" is the value OsMajor of the subkey Linux; a name that begins with a root key's need not be one of the
// settings'. `whole` is the shortest form: below the settings key where the value lies there.
struct SETTING_NAME {
    win32::REG_PATH key = SettingsPath();
    std::u16string whole, value;

    explicit SETTING_NAME(const std::string& text) : whole(FromArgument(text)) {
        const size_t slash = whole.rfind(u'\\');
        if (win32::SameName(whole.substr(0, RootKey.size()), RootKey)) key.clear();
        value = slash == std::u16string::npos ? whole : whole.substr(slash + 1);
        const bool good = !value.empty() && value.size() <= win32::MaxValueNameUnits && win32::WritableName(value) &&
                          (slash == std::u16string::npos || win32::SplitKeyPath(whole.substr(0, slash), key));
        if (!good) throw CLI::ValidationError("\"" + text + "\" cannot be the name of a value");
        const win32::REG_PATH& settings = SettingsPath();
        if (key.size() < settings.size() || !std::equal(settings.begin(), settings.end(), key.begin(), win32::SameName))
            return;
        whole = value;
        for (size_t i = key.size(); i > settings.size(); --i) whole.insert(0, key[i - 1] + u'\\');
    }
};

[[noreturn]] void FailNoSettings() { throw COMMAND_ERROR(NoSettingsText()); }

[[noreturn]] void FailNoValue(const std::string& name) {
    throw COMMAND_ERROR("there is no value \"" + name + "\" in the settings");
}

// The tree as the file holds it; a file that cannot be used is a failure that names its fault.
std::shared_ptr<const REG_TREE> Settings() {
    DWORD error = ERROR_SUCCESS;
    std::shared_ptr<const REG_TREE> tree = REG_STORE::Current().Tree(&error);
    if (!tree) FailRegistry("cannot read the settings", error);
    if (tree->Find(SettingsPath()) == nullptr) FailNoSettings();
    return tree;
}

struct SETTING_LINE {
    std::string name, type, value;
};

void Collect(const REG_NODE& key, const std::u16string& path, std::vector<SETTING_LINE>& lines) {
    std::vector<const REG_VALUE*> values;
    for (const auto& [folded, value] : key.values) values.push_back(&value);
    std::sort(values.begin(), values.end(), [](const auto* a, const auto* b) { return a->order < b->order; });
    for (const REG_VALUE* value : values) {
        const std::u16string name = path + (value->name.empty() ? u"@" : value->name);
        lines.push_back({SafeText(win32::ToUtf8(name)), TypeWord(value->type), ExplainValue(name, *value)});
    }
    for (const auto& [folded, child] : key.children) Collect(*child, path + child->name + u'\\', lines);
}

void List() {
    std::vector<SETTING_LINE> lines;
    Collect(*Settings()->Find(SettingsPath()), u"", lines);
    int nameWidth = 0, typeWidth = 0;
    for (const SETTING_LINE& line : lines) {
        nameWidth = std::max(nameWidth, static_cast<int>(line.name.size()));
        typeWidth = std::max(typeWidth, static_cast<int>(line.type.size()));
    }
    for (const SETTING_LINE& line : lines) {
        std::printf("%-*s  %-*s  %s\n", nameWidth, line.name.c_str(), typeWidth, line.type.c_str(), line.value.c_str());
    }
}

void Get(const SETTING_OPTIONS& options) {
    const SETTING_NAME name(options.name);
    const std::shared_ptr<const REG_TREE> tree = Settings();
    const REG_NODE* const key = tree->Find(name.key);
    const REG_VALUE* const value = key != nullptr ? win32::FindValue(*key, name.value) : nullptr;
    if (value == nullptr) FailNoValue(options.name);
    const std::string text = ShowValue(*value) + "\n";
    std::fwrite(text.data(), 1, text.size(), stdout);
}

// --type wins, then the name's type, then that of the value that is there.
DWORD ChooseType(const SETTING_OPTIONS& options, const SETTING_NAME& name, const REG_VALUE* present) {
    if (!options.type.empty()) return TypeOfWord(options.type).value();
    if (const std::optional<DWORD> known = SettingType(name.whole)) return *known;
    if (present != nullptr) return present->type;
    throw CLI::ValidationError("Keldwick reads no value \"" + options.name + "\"; --type stores it anyway");
}

DWORD SetValue(REG_TREE& tree, const SETTING_OPTIONS& options, const SETTING_NAME& name, REG_VALUE& stored) {
    const REG_NODE* const old = tree.Find(name.key);
    const DWORD type = ChooseType(options, name, old != nullptr ? win32::FindValue(*old, name.value) : nullptr);
    SETTING_DATA data = ParseSetting(name.whole, options.values, type);
    if (data.bytes.size() > win32::MaxValueBytes) throw COMMAND_ERROR("the value is too long");
    REG_NODE* const key = tree.Make(name.key);
    const REG_VALUE* const set =
        key != nullptr ? tree.SetValue(*key, name.value, data.type, std::move(data.bytes)) : nullptr;
    if (set != nullptr) stored = *set;
    return set != nullptr ? ERROR_SUCCESS : ERROR_NO_SYSTEM_RESOURCES;
}

void Set(const SETTING_OPTIONS& options) {
    const SETTING_NAME name(options.name);
    Settings();
    REG_VALUE stored;
    const DWORD error =
        REG_STORE::Current().Change([&](REG_TREE& tree) { return SetValue(tree, options, name, stored); });
    if (error != ERROR_SUCCESS) FailRegistry("cannot set \"" + options.name + "\"", error);
    WarnOfSetting(name.whole, stored);
}

void Delete(const SETTING_OPTIONS& options) {
    const SETTING_NAME name(options.name);
    Settings();
    const DWORD error = REG_STORE::Current().Change([&](REG_TREE& tree) -> DWORD {
        const bool there = tree.Find(name.key) != nullptr && tree.DeleteValue(*tree.Make(name.key), name.value);
        if (!there) FailNoValue(options.name);
        return ERROR_SUCCESS;
    });
    if (error != ERROR_SUCCESS) FailRegistry("cannot delete \"" + options.name + "\"", error);
}

}  // namespace

void AddSettingsCommands(CLI::App& app) {
    const auto options = std::make_shared<SETTING_OPTIONS>();
    CLI::App* const settings = app.add_subcommand("settings", "Reads and writes the values of the settings key.");
    settings->require_subcommand(1);

    settings->add_subcommand("list", "Shows every value with its type.")->callback([] { List(); });

    CLI::App* const get = settings->add_subcommand("get", "Shows one value and nothing else.");
    get->add_option("NAME", options->name, NameHelp)->required();
    get->callback([options] { Get(*options); });

    CLI::App* const set = settings->add_subcommand(
        "set", "Sets a value; its type follows its name. IdentProtocol also takes auto, tcps and tcp.");
    set->add_option("NAME", options->name, NameHelp)->required();
    set->add_option("VALUE", options->values, "the value; several only for multi_sz")->required();
    set->add_option("--type", options->type, "forces a type")->check(CLI::IsMember(TypeWords()));
    set->callback([options] { Set(*options); });

    CLI::App* const remove = settings->add_subcommand("delete", "Deletes a value.");
    remove->add_option("NAME", options->name, NameHelp)->required();
    remove->callback([options] { Delete(*options); });
}

}  // namespace tools
