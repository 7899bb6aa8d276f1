// Values as the live sources write them, taken with care.
#pragma once

#include <windows.h>

#include <nlohmann/json.hpp>
#include <optional>
#include <string>
#include <string_view>

constexpr size_t LargestFeedLine = 1024 * 1024;  // bytes

// One JSON object; discarded when the text is anything else. Never throws for what the text holds.
nlohmann::json ParseFeedObject(std::string_view line);

// A scalar as text: numbers in decimal, true and false as words; empty for null, arrays and objects. A NUL, at which a
// record's text would end early and name somebody else, becomes U+FFFD.
std::string ScalarText(const nlohmann::json& value);

// The member's scalar as text; empty when there is no such member.
std::string MemberText(const nlohmann::json& object, const char* name);

// Seconds since 1970 of a time as log shippers write it: ISO 8601 with T or a blank, offsets with or without a colon
// (without any it is UTC); /Date(ms)/; a number of seconds, milliseconds, microseconds or nanoseconds, with a
// fraction or not (cut off).
std::optional<DWORD> ParseShippedTime(std::string_view text);

// This computer's name, as the events written here carry it.
std::u16string OwnComputerName();
