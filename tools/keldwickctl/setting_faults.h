// Settings that the agent can read but not use, or not as they look.
#pragma once

#include "win32/registry/tree.h"

#include <string>
#include <string_view>

namespace tools {

// Why the agent does not use the value as it stands, and what it does instead; empty: nothing is wrong with it. The
// name is that of a value below the settings key ("Heartbeat", "Linux\NameLookupTimeout").
std::string SettingFault(std::u16string_view name, const win32::REG_VALUE& value);

// The same for a host's name or address as IdentServer has it.
std::string HostFault(const std::string& host);

// Says on standard error that the value was stored although it has that fault; nothing for an empty one.
void WarnOfSetting(std::u16string_view name, const win32::REG_VALUE& value);

}  // namespace tools
