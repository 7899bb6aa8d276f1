#include "eventlog/event_record.h"

namespace keldwick {

namespace {

const WCHAR* BehindNul(const WCHAR* text) {
    while (*text) ++text;
    return text + 1;
}

}  // namespace

void REPLACEMENT_STRINGS::Decode(const EVENTLOGRECORD& record) {
    const DWORD bytes = record.NumStrings * static_cast<DWORD>(sizeof(const WCHAR*));
    count = 0;
    if (pointers.Size() < bytes && !pointers.Resize(bytes)) return;
    auto* position = reinterpret_cast<const WCHAR*>(reinterpret_cast<const BYTE*>(&record) + record.StringOffset);
    for (; count < record.NumStrings; ++count) {
        pointers.As<const WCHAR*>()[count] = position;
        position = BehindNul(position);
    }
}

const WCHAR* SourceName(const EVENTLOGRECORD& record) { return reinterpret_cast<const WCHAR*>(&record + 1); }

const WCHAR* ComputerName(const EVENTLOGRECORD& record) { return BehindNul(SourceName(record)); }

}  // namespace keldwick
