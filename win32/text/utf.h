// UTF-16 to UTF-8 and back for the layer's own use. Neither fails: what is malformed becomes U+FFFD, as the Windows
// conversions do it without their "error" flags.
#pragma once

#include <string>
#include <string_view>

namespace win32 {

std::string ToUtf8(std::u16string_view text);
std::u16string ToUtf16(std::string_view text);

// The same into a text whose memory is used again. ASCII, as most texts are, goes the short way.
void AssignUtf16(std::u16string& into, std::string_view text);

// Whether both are the same text when letter case is ignored by simple case folding: for names of keys, values,
// sources and logs, where no locale may have a say.
bool SameName(std::u16string_view a, std::u16string_view b);

// The name folded the same way, for use as a key of a map.
std::u16string FoldName(std::u16string_view name);

}  // namespace win32
