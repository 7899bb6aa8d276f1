#include "win32/eventlog/event_text.h"

#include <array>

#include "win32/text/utf.h"

namespace win32 {

std::string EventText(DWORD id, const std::vector<std::u16string>& strings) {
    constexpr WORD MaxInserts = 99;  // %1 to %99 in message texts
    std::array<DWORD_PTR, MaxInserts> inserts;
    inserts.fill(reinterpret_cast<DWORD_PTR>(u""));
    for (size_t i = 0; i < strings.size() && i < inserts.size(); ++i)
        inserts[i] = reinterpret_cast<DWORD_PTR>(strings[i].c_str());
    LPWSTR text = nullptr;
    const DWORD units =
        FormatMessageW(FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_ARGUMENT_ARRAY,
                       GetModuleHandleW(nullptr), id, 0, reinterpret_cast<LPWSTR>(&text), 0, inserts.data());
    std::u16string message(text != nullptr ? text : u"", units);
    LocalFree(text);
    if (message.empty())
        for (const std::u16string& each : strings) message += each + u" ";
    std::erase(message, u'\r');  // or who reads the journal as JSON finds bytes in the place of a text
    const size_t end = message.find_last_not_of(u" \n");
    message.resize(end == std::u16string::npos ? 0 : end + 1);
    return ToUtf8(message);
}

}  // namespace win32
