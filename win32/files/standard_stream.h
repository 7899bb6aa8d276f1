// The process's standard streams, whose readers may be slow, stuck or gone: that never stops the program.
#pragma once

#include <string_view>

namespace win32 {

// From here on a pipe whose reader left fails a write, as on Windows, and does not end the process. For a program's
// first line; one that others end by leaving its output does without.
void IgnoreBrokenPipes();

// Writes to one of the two output streams and gives how many bytes it took. Fewer, with errno: it took no more within
// a moment (EAGAIN), or cannot be written at all. A stream that was found stuck is not waited for again until it takes
// something. Safe to call from any thread.
size_t WriteToStream(int stream, std::string_view text);

}  // namespace win32
