#include "protocol/session_events.h"

#include <array>
#include <bit>
#include <cstddef>

#include "platform/string.h"

namespace keldwick {

namespace {

struct EVENT_BIT {
    SESSION_EVENTS bit;
    const WCHAR* name;
};

constexpr EVENT_BIT EventBits[] = {
    {SESSION_ERROR, TEXT("Error")},
    {SESSION_CONNECTED, TEXT("Connected")},
    {SESSION_READY_TO_SEND, TEXT("Ready to send")},
    {SESSION_DATA_IN, TEXT("Data in")},
    {SESSION_DISCONNECTED, TEXT("Disconnected")},
    {SESSION_CERTIFICATE_ERROR, TEXT("Certificate error")},
};
constexpr size_t EventSets = size_t{1} << std::size(EventBits);

// The names of every set of bits, made once, since each report names several sets.
std::array<STRING, EventSets> AllNames() {
    std::array<STRING, EventSets> names;
    for (size_t set = 0; set < EventSets; ++set) {
        for (const EVENT_BIT& event : EventBits) {
            if ((set & event.bit) == 0) continue;
            if (!names[set].IsEmpty()) names[set].Append(TEXT(", "));
            names[set].Append(event.name);
        }
    }
    return names;
}

}  // namespace

const WCHAR* EventNames(SESSION_EVENTS events) {
    static const std::array<STRING, EventSets>& names = *new std::array<STRING, EventSets>(AllNames());
    return names[events % EventSets].Text();
}

}  // namespace keldwick
