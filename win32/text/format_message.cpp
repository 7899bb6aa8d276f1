// FormatMessageW: finds the text (own message table, the system's, or the caller's), formats it, hands it out.
#include <windows.h>

#include <algorithm>
#include <cstring>
#include <string>

#include "resources/resource_tables.h"
#include "win32/files/own_module.h"
#include "win32/text/last_error.h"
#include "win32/text/message_format.h"
#include "win32/text/system_messages.h"

namespace {

// Neutral, the user's default, the system's default and US English are one: the only language there is.
bool IsOwnLanguage(DWORD language) {
    return language == 0 || language == 0x0400 || language == 0x0800 || language == keldwick::ResourceLanguage;
}

// Sets the last error when nothing is found.
bool FindInModule(LPCVOID module, DWORD id, std::u16string& text) {
    if (module != nullptr && !win32::IsOwnModule(static_cast<HMODULE>(const_cast<void*>(module))))
        return win32::FailWith(ERROR_RESOURCE_TYPE_NOT_FOUND);
    for (const keldwick::RESOURCE_MESSAGE& message : keldwick::MessageTable()) {
        if (message.id != id) continue;
        text = message.text;
        return true;
    }
    return win32::FailWith(ERROR_MR_MID_NOT_FOUND);
}

bool FindText(DWORD flags, LPCVOID source, DWORD id, DWORD language, std::u16string& text) {
    if ((flags & FORMAT_MESSAGE_FROM_STRING) != 0) {
        if (source == nullptr) return win32::FailWith(ERROR_INVALID_PARAMETER);
        text = static_cast<const char16_t*>(source);
        return true;
    }
    if ((flags & (FORMAT_MESSAGE_FROM_HMODULE | FORMAT_MESSAGE_FROM_SYSTEM)) == 0)
        return win32::FailWith(ERROR_INVALID_PARAMETER);
    if (!IsOwnLanguage(language)) return win32::FailWith(ERROR_RESOURCE_LANG_NOT_FOUND);
    if ((flags & FORMAT_MESSAGE_FROM_HMODULE) != 0 && FindInModule(source, id, text)) return true;
    if ((flags & FORMAT_MESSAGE_FROM_SYSTEM) == 0) return false;
    const char16_t* message = win32::SystemMessage(id);
    if (message == nullptr) return win32::FailWith(ERROR_MR_MID_NOT_FOUND);
    text = message;
    text += u"\r\n";
    return true;
}

// Puts the text into the caller's buffer, or into a new one of at least `size` units.
DWORD Deliver(DWORD flags, const std::u16string& text, LPWSTR buffer, DWORD size) {
    const size_t units = text.size() + 1;
    if ((flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0) {
        void* memory = LocalAlloc(LMEM_FIXED, std::max<size_t>(units, size) * sizeof(WCHAR));
        if (memory == nullptr) return 0;
        *reinterpret_cast<LPWSTR*>(buffer) = static_cast<LPWSTR>(memory);
        buffer = static_cast<LPWSTR>(memory);
    } else if (units > size) {
        return static_cast<DWORD>(win32::FailWith(ERROR_INSUFFICIENT_BUFFER));
    }
    memcpy(buffer, text.c_str(), units * sizeof(WCHAR));
    return static_cast<DWORD>(text.size());
}

}  // namespace

DWORD WINAPI FormatMessageW(DWORD flags, LPCVOID source, DWORD messageId, DWORD languageId, LPWSTR buffer, DWORD size,
                            void* arguments) {
    if (buffer == nullptr) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    const bool allocates = (flags & FORMAT_MESSAGE_ALLOCATE_BUFFER) != 0;
    if (allocates) *reinterpret_cast<LPWSTR*>(buffer) = nullptr;

    std::u16string text;
    if (!FindText(flags, source, messageId, languageId, text)) return 0;
    win32::MESSAGE_FORMAT format;
    format.ignoreInserts = (flags & FORMAT_MESSAGE_IGNORE_INSERTS) != 0;
    format.width = flags & FORMAT_MESSAGE_MAX_WIDTH_MASK;
    if ((flags & FORMAT_MESSAGE_ARGUMENT_ARRAY) != 0) format.arguments = static_cast<const DWORD_PTR*>(arguments);
    const auto finished = win32::FormatMessageText(text, format);
    if (!finished) return static_cast<DWORD>(win32::FailWith(ERROR_INVALID_PARAMETER));
    if (finished->empty() && allocates) return 0;  // nothing to hand out, so nothing for the caller to free
    return Deliver(flags, *finished, buffer, size);
}
