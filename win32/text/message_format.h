// The language of message texts: inserts, escapes and line widths, as FormatMessageW understands them.
#pragma once

#include <windows.h>

#include <optional>
#include <string>
#include <string_view>

namespace win32 {

struct MESSAGE_FORMAT {
    bool ignoreInserts = false;            // %1 to %99 and escapes without a meaning of their own stay as they are
    DWORD width = 0;                       // 0: the text's own line breaks count; 255: only %n; else units in a line
    const DWORD_PTR* arguments = nullptr;  // the inserts, as many as the text asks for
};

// The finished text; nothing when the text is malformed or asks for an insert and there are no arguments.
//
//   %1 .. %99  insert, a text unless a format follows: %1!u!  (d i u x X o c s, with flags, width, precision)
//   %0         the message ends here, without the rest          %n  line break
//   %r  carriage return     %b or %blank  blank     %t  tab      %% %. %!  the character itself
std::optional<std::u16string> FormatMessageText(std::u16string_view text, const MESSAGE_FORMAT& format);

}  // namespace win32
