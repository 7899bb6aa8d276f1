// The program's resources as tables. On Windows the same lists (string_table.inc, message_table.inc, version.inc) go
// through the resource compiler; on Linux the layer's FindResourceW, FormatMessageW and GetFileVersionInfoW read these.
#pragma once

#include <windows.h>

#include <cstddef>

namespace keldwick {

struct RESOURCE_STRING {
    WORD id;
    const WCHAR* text;
};

struct RESOURCE_MESSAGE {
    DWORD id;
    const WCHAR* text;  // with the message compiler's escapes: %1, %n ...
};

struct RESOURCE_VERSION_VALUE {
    const WCHAR* name;
    const WCHAR* text;
};

template <typename ROW>
struct RESOURCE_TABLE {
    const ROW* rows;
    size_t count;

    const ROW* begin() const { return rows; }
    const ROW* end() const { return rows + count; }
};

inline constexpr WORD ResourceLanguage = 0x0409;  // US English
inline constexpr WORD ResourceCodePage = 0x04B0;  // UTF-16

RESOURCE_TABLE<RESOURCE_STRING> StringTable();             // ascending by id
RESOURCE_TABLE<RESOURCE_MESSAGE> MessageTable();           // ascending by id
RESOURCE_TABLE<RESOURCE_VERSION_VALUE> VersionResource();  // by name

}  // namespace keldwick
