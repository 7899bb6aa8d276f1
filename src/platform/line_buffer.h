// A line of UTF-8 text, put together piece by piece and used again for the next one, so that lines cost no allocation.
// What cannot be allocated is left out, and Failed says so.
#pragma once

#include <string_view>

#include "platform/format.h"
#include "platform/heap_buffer.h"

namespace keldwick {

class LINE_BUFFER {
public:
    void Clear();
    void Append(std::string_view bytes);
    void AppendWholeBreaks(std::string_view bytes);  // each line feed without a carriage return before it gets one
    void AppendWide(TEXT_VIEW text);                 // as UTF-8; half of a surrogate pair becomes U+FFFD

    // Formats straight to UTF-8, in one pass over format and arguments. False: the format does not fit its arguments,
    // and nothing was appended.
    bool AppendFormat(const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments);

    std::string_view View() const { return {block.As<char>(), length}; }
    const char* Terminated();  // null when there is no memory
    bool Failed() const { return failed; }

private:
    friend struct LINE_SINK;  // of the formatter

    // Pieces of one text: the halves of a pair may come in two of them.
    void PutWide(TEXT_VIEW piece);
    void EndWide();

    char* Reserve(size_t bytes);  // room for that many more; null when there is no memory
    bool Grow(size_t bytes);

    HEAP_BUFFER block;
    size_t length = 0;
    WCHAR lead = 0;  // a pair's first half, whose second has not come yet
    bool failed = false;
};

}  // namespace keldwick
