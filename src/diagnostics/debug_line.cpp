#include "diagnostics/debug_line.h"

namespace keldwick {
namespace {

constexpr TEXT_VIEW DebuggerLineEnd = TEXT("\n\n");  // leaves an empty line between messages
constexpr TEXT_VIEW LogLineEnd = TEXT("\r\n");

// The kernel's debug print; null on a system without it.
using KERNEL_PRINT = ULONG (*)(ULONG component, ULONG level, const char* format, ...);
constexpr ULONG KernelComponent = 77;
constexpr ULONG KernelLevel = 0;

KERNEL_PRINT FindKernelPrint() {
    const HMODULE ntdll = GetModuleHandleW(TEXT("ntdll.dll"));
    if (ntdll == nullptr) return nullptr;
    return reinterpret_cast<KERNEL_PRINT>(reinterpret_cast<void*>(GetProcAddress(ntdll, "DbgPrintEx")));
}

template <typename... ARGUMENTS>
void AppendFormatted(WIDE_LINE& line, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    AppendFormat(line, format.Text(), FormatArguments(arguments...));
}

void AppendPrefix(const DEBUG_STATE& state, WIDE_LINE& line) {
    AppendFormatted(line, TEXT("%s(%lu.%lu) "), state.prefix, GetCurrentProcessId(), GetCurrentThreadId());
}

// The time that a line carries, read into `now`; null when it carries none.
const SYSTEMTIME* ReadTime(const DEBUG_STATE& state, bool framed, SYSTEMTIME& now) {
    if (!framed || (state.mode & DEBUG_MODE_NO_TIME_STAMP) != 0) return nullptr;
    GetLocalTime(&now);
    return &now;
}

void AppendTime(WIDE_LINE& line, const SYSTEMTIME& now) {
    const WORD hour = now.wHour % 12 == 0 ? WORD(12) : static_cast<WORD>(now.wHour % 12);
    AppendFormatted(line, TEXT("%04u/%02u/%02u %02u:%02u:%02u %cM "), now.wYear, now.wMonth, now.wDay, hour,
                    now.wMinute, now.wSecond, now.wHour < 12 ? 'A' : 'P');
}

// How many line breaks at the start of the message go before everything else.
size_t LeadingBreaks(TEXT_VIEW message) {
    const size_t text = message.find_first_not_of(TEXT("\r\n"));
    return text == TEXT_VIEW::npos ? 0 : text;
}

// The parts of a line that differ from sink to sink.
struct LINE_FORM {
    bool prefix;
    const SYSTEMTIME* time;  // null: none
    TEXT_VIEW end;
};

// False: there is no memory for the line.
bool Compose(const DEBUG_STATE& state, WIDE_LINE& line, TEXT_VIEW message, const LINE_FORM& form) {
    line.Clear();
    const size_t breaks = form.prefix ? LeadingBreaks(message) : 0;
    line.Append(message.substr(0, breaks));
    if (form.time != nullptr) AppendTime(line, *form.time);
    if (form.prefix) AppendPrefix(state, line);
    line.Append(message.substr(breaks));
    line.Append(form.end);
    return !line.Failed();
}

// Appends the text as UTF-8.
void AppendUtf8(LINE_BUFFER<char>& bytes, TEXT_VIEW text) {
    constexpr size_t MaxBytesOfUnit = 3;  // a pair of surrogates takes 4
    if (text.empty()) return;
    const size_t before = bytes.View().size();
    const size_t room = text.size() * MaxBytesOfUnit;
    char* const at = bytes.Extend(room);
    if (at == nullptr) return;
    const int written = WideCharToMultiByte(CP_UTF8, 0, text.data(), static_cast<int>(text.size()), at,
                                            static_cast<int>(room), nullptr, nullptr);
    bytes.Truncate(before + static_cast<size_t>(written > 0 ? written : 0));
}

void ToHook(const DEBUG_STATE& state, WIDE_LINE& line) {
    const WCHAR* const text = line.Terminated();
    if (text != nullptr) state.hook(text);
}

void ToDebugger(const DEBUG_STATE& state, WIDE_LINE& line) {
    const WCHAR* const text = line.Terminated();
    if (text == nullptr) return;
    if ((state.mode & DEBUG_MODE_KERNEL) == 0) return OutputDebugStringW(text);
    static const KERNEL_PRINT kernelPrint = FindKernelPrint();
    if (kernelPrint == nullptr) return;
    LINE_BUFFER<char> narrow;
    AppendUtf8(narrow, line.View());
    if (const char* const narrowText = narrow.Terminated()) kernelPrint(KernelComponent, KernelLevel, "%s", narrowText);
}

void ToConsole(DEBUG_STATE& state, TEXT_VIEW text) {
    const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    if (console == nullptr || console == INVALID_HANDLE_VALUE) return;
    state.bytes.Clear();
    AppendUtf8(state.bytes, text);
    DWORD written = 0;
    WriteFile(console, state.bytes.View().data(), static_cast<DWORD>(state.bytes.View().size()), &written, nullptr);
}

// The line as the file gets it, in the state's bytes: each line feed that has no carriage return before it is given
// one.
void ToLogBytes(DEBUG_STATE& state, TEXT_VIEW text) {
    state.bytes.Clear();
    while (!text.empty()) {
        size_t at = text.find(WCHAR('\n'));
        while (at != TEXT_VIEW::npos && at != 0 && text[at - 1] == '\r') at = text.find(WCHAR('\n'), at + 1);
        AppendUtf8(state.bytes, text.substr(0, at));
        if (at == TEXT_VIEW::npos) break;
        state.bytes.Append(std::string_view("\r\n"));
        text.remove_prefix(at + 1);
    }
}

void ToLogFile(DEBUG_STATE& state, TEXT_VIEW text) {
    if (!OpenLogFile(state)) return;
    ToLogBytes(state, text);
    if (!state.bytes.Failed()) WriteLogFile(state, state.bytes.View());
}

}  // namespace

bool AppendFormat(WIDE_LINE& line, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    const size_t units = MeasureFormat(format, arguments);
    if (units == FormatFailed) return false;
    if (units == 0) return true;
    WCHAR* const at = line.Extend(units);
    if (at == nullptr) return false;
    WriteFormat(at, format, arguments);
    return true;
}

void WriteLine(DEBUG_STATE& state, DWORD flags, TEXT_VIEW message) {
    const bool framed = (flags & DEBUG_RAW) == 0;
    const bool ended = (flags & DEBUG_NO_LINE_END) == 0;
    const bool debugger = ((state.mode & DEBUG_MODE_DEBUGGER) | (flags & DEBUG_FORCE_DEBUGGER)) != 0;
    const bool logFile = ((state.mode & DEBUG_MODE_LOG) | (flags & DEBUG_FORCE_LOG)) != 0;
    SYSTEMTIME now;
    const SYSTEMTIME* const time = ReadTime(state, framed, now);
    WIDE_LINE& line = state.composed;
    if (state.hook != nullptr && Compose(state, line, message, {false, nullptr, {}})) {
        WithinMemory([&] { ToHook(state, line); });
    }
    if (debugger && Compose(state, line, message, {framed, time, ended ? DebuggerLineEnd : TEXT_VIEW()})) {
        WithinMemory([&] { ToDebugger(state, line); });
    }
    if ((state.mode & DEBUG_MODE_CONSOLE) != 0 && Compose(state, line, message, {framed, nullptr, DebuggerLineEnd})) {
        WithinMemory([&] { ToConsole(state, line.View()); });
    }
    if (logFile && Compose(state, line, message, {framed, time, ended ? LogLineEnd : TEXT_VIEW()})) {
        WithinMemory([&] { ToLogFile(state, line.View()); });
    }
}

void WriteSeparator(DEBUG_STATE& state) {
    WIDE_LINE& line = state.composed;
    if (Compose(state, line, TEXT("\n"), {false, nullptr, {}})) {
        if (state.hook != nullptr) WithinMemory([&] { ToHook(state, line); });
        if ((state.mode & DEBUG_MODE_DEBUGGER) != 0) WithinMemory([&] { ToDebugger(state, line); });
    }
    if ((state.mode & DEBUG_MODE_CONSOLE) != 0) WithinMemory([&] { ToConsole(state, TEXT("\n")); });
    if ((state.mode & DEBUG_MODE_LOG) != 0) WithinMemory([&] { ToLogFile(state, LogLineEnd); });
}

void WriteDebuggerLine(DEBUG_STATE& state, bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    WithinMemory([&] {
        STRING message;
        message.FormatV(format, arguments);
        SYSTEMTIME now;
        const LINE_FORM form{withPrefix, ReadTime(state, withPrefix, now), withPrefix ? DebuggerLineEnd : TEXT_VIEW()};
        WIDE_LINE line;
        if (Compose(state, line, message.View(), form)) ToDebugger(state, line);
    });
}

}  // namespace keldwick
