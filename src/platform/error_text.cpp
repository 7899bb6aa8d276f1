#include "platform/error_text.h"

#include <winsock2.h>

#include <algorithm>
#include <iterator>

#include "platform/handles.h"
#include "platform/string.h"

namespace keldwick {
namespace {

// The system's text for the code; null when there is none. Its length in units goes to `length`.
LOCAL_TEXT_OWNER SystemText(DWORD code, HMODULE module, DWORD& length) {
    DWORD flags = FORMAT_MESSAGE_ALLOCATE_BUFFER | FORMAT_MESSAGE_IGNORE_INSERTS | FORMAT_MESSAGE_FROM_SYSTEM |
                  FORMAT_MESSAGE_ARGUMENT_ARRAY;
    if (module != nullptr) flags |= FORMAT_MESSAGE_FROM_HMODULE;
    LOCAL_TEXT_OWNER text;
    // The allocating form takes the place for the pointer where the others take the buffer.
    const auto place = reinterpret_cast<LPWSTR>(text.Put());
    length = FormatMessageW(flags, module, code, LOCALE_USER_DEFAULT, place, 1, nullptr);
    return text;
}

// Results of the directory interfaces in the order of their texts in the string table, StringDirectoryFirst on.
constexpr DWORD DirectoryResults[] = {
    0x80005000, 0x80005001, 0x80005002, 0x80005003, 0x80005004, 0x80005005, 0x80005006, 0x80005007, 0x80005008,
    0x80005009, 0x8000500A, 0x8000500B, 0x8000500C, 0x8000500D, 0x8000500E, 0x8000500F, 0x80005010, 0x80005014,
};
static_assert(StringDirectoryFirst + std::size(DirectoryResults) == StringUnknownDirectoryError);

}  // namespace

ERROR_CODE ERROR_CODE::FromSockets() { return ERROR_CODE(static_cast<DWORD>(WSAGetLastError())); }

bool LoadErrorText(STRING& text, DWORD code, HMODULE module) {
    DWORD length = 0;
    const LOCAL_TEXT_OWNER system = SystemText(code, module, length);
    if (!system) length = 0;
    const WCHAR* const start = system.Get();
    while (length != 0 && (start[length - 1] == '\r' || start[length - 1] == '\n')) --length;
    if (length != 0 && start[length - 1] == '.') --length;
    text.Assign(start, length);
    return length != 0;
}

STRING ErrorText(DWORD code, HMODULE module) {
    STRING text;
    LoadErrorText(text, code, module);
    return text;
}

namespace {

// The code's own text; empty when it has none, or when there was no memory to find it.
STRING OwnText(const ERROR_CODE& error) {
    if (error.Form() == ERROR_CODE::FORM::DIRECTORY) {
        const auto* const found = std::find(std::begin(DirectoryResults), std::end(DirectoryResults), error.Get());
        if (found != std::end(DirectoryResults))
            return LoadResourceString(static_cast<WORD>(StringDirectoryFirst + (found - DirectoryResults)));
    }
    return ErrorText(error.Get());
}

STRING TextOfNone(const ERROR_CODE& error) {
    return error.Form() == ERROR_CODE::FORM::DIRECTORY ? LoadResourceString(StringUnknownDirectoryError) : STRING();
}

}  // namespace

STRING ErrorText(const ERROR_CODE& error) {
    STRING own = OwnText(error);
    return own.IsEmpty() ? TextOfNone(error) : own;
}

void AppendError(LINE_BUFFER& line, const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format,
                 FORMAT_ARGUMENTS arguments, ERROR_TAIL* last) {
    const size_t before = line.View().size();
    line.AppendFormat(format, arguments);
    const std::string_view message = line.View().substr(std::min(before, line.View().size()));
    line.Append(message.ends_with(' ') ? "" : ". ");
    if (last != nullptr && last->IsOf(error)) return line.Append({last->text, last->length});
    const size_t start = line.View().size();
    const STRING own = OwnText(error);
    line.AppendWide((own.IsEmpty() ? TextOfNone(error) : own).View());
    const bool decimal = error.Form() == ERROR_CODE::FORM::DECIMAL;
    line.AppendFormat(decimal ? TEXT(". Error code = %lu.") : TEXT(". Error code = %#lx."),
                      FormatArguments(error.Get()));
    if (last != nullptr && !line.Failed() && !own.IsEmpty()) last->Keep(error, line.View().substr(start));
}

bool ERROR_TAIL::IsOf(const ERROR_CODE& error) const {
    return length != 0 && code == error.Get() && form == error.Form();
}

void ERROR_TAIL::Keep(const ERROR_CODE& error, std::string_view tail) {
    length = tail.size() <= sizeof text ? tail.copy(text, sizeof text) : 0;
    code = error.Get();
    form = error.Form();
}

STRING FormatErrorV(const ERROR_CODE& error, const FORMAT_TEXT<WCHAR>& format, FORMAT_ARGUMENTS arguments) {
    LINE_BUFFER line;
    AppendError(line, error, format, arguments);
    const char* const text = line.Terminated();
    if (text == nullptr || line.Failed()) throw STRING_NO_MEMORY{static_cast<DWORD>(line.View().size())};
    return STRING(text);
}

STRING DirectoryErrorText(HRESULT result) { return ErrorText(ERROR_CODE::FromDirectory(result)); }

}  // namespace keldwick
