// A registry file's text with one key.
#pragma once

#include <algorithm>
#include <map>
#include <sstream>
#include <string>

// The key with these values: "Name='text' Other=dword:1", of one name the last; without text after its "=", no such
// value.
inline std::string RegistryText(const std::string& key, const std::string& values) {
    std::map<std::string, std::string> settings;
    std::istringstream words(values);
    for (std::string name, value; std::getline(words >> std::ws, name, '=');) {
        std::getline(words, value, ' ');
        settings[name] = value;
    }
    std::string text = "Windows Registry Editor Version 5.00\r\n\r\n[" + key + "]\r\n";
    for (const auto& [name, value] : settings)
        if (!value.empty()) text += "'" + name + "'=" + value + "\r\n";
    std::replace(text.begin(), text.end(), '\'', '"');
    return text;
}
