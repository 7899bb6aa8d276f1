#include "diagnostics/debug_line.h"

#include <algorithm>

namespace keldwick {
namespace {

constexpr std::string_view DebuggerLineEnd = "\n\n";  // leaves an empty line between messages
constexpr std::string_view LogLineEnd = "\r\n";

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
void AppendFormatted(LINE_BUFFER& line, FORMAT<ARGUMENTS...> format, const ARGUMENTS&... arguments) {
    line.AppendFormat(format.Text(), FormatArguments(arguments...));
}

// Appends the part as it was last, or as `make` makes it.
template <typename MAKE>
void AppendPart(LINE_BUFFER& line, LINE_PART& part, bool same, MAKE make) {
    if (same && part.length != 0) return line.Append({part.text, part.length});
    const size_t before = line.View().size();
    make();
    const std::string_view made = line.View().substr(std::min(before, line.View().size()));
    part.length = line.Failed() || made.size() > sizeof part.text ? 0 : made.copy(part.text, sizeof part.text);
}

void AppendPrefix(DEBUG_STATE& state, LINE_BUFFER& line) {
    LINE_PART& last = state.lastPrefix;
    const DWORD process = GetCurrentProcessId(), thread = GetCurrentThreadId();
    AppendPart(line, last, last.process == process && last.thread == thread,
               [&] { AppendFormatted(line, TEXT("%s(%lu.%lu) "), state.prefix, process, thread); });
    last.process = process;
    last.thread = thread;
}

// The time that a line carries, in `now`; null when it carries none.
const TIME_STAMP* ReadTime(const DEBUG_STATE& state, bool framed, TIME_STAMP& now) {
    if (!framed || (state.mode & DEBUG_MODE_NO_TIME_STAMP) != 0) return nullptr;
    now = TIME_STAMP::Now();
    return &now;
}

void AppendLocalTime(LINE_BUFFER& line, const TIME_STAMP& now) {
    SYSTEMTIME fields;
    if (!now.ToLocal().ToFields(fields)) return;
    const WORD hour = fields.wHour % 12 == 0 ? WORD(12) : static_cast<WORD>(fields.wHour % 12);
    AppendFormatted(line, TEXT("%04u/%02u/%02u %02u:%02u:%02u %cM "), fields.wYear, fields.wMonth, fields.wDay, hour,
                    fields.wMinute, fields.wSecond, fields.wHour < 12 ? 'A' : 'P');
}

// Local time changes its offset between two seconds, never within one.
void AppendTime(DEBUG_STATE& state, LINE_BUFFER& line, const TIME_STAMP& now) {
    const LONGLONG second = now.Units() / TIME_STAMP::UnitsPerSecond;
    AppendPart(line, state.lastTime, state.lastTime.second == second, [&] { AppendLocalTime(line, now); });
    state.lastTime.second = second;
}

// How many line breaks at the start of the message go before everything else.
size_t LeadingBreaks(std::string_view message) {
    const size_t text = message.find_first_not_of("\r\n");
    return text == std::string_view::npos ? 0 : text;
}

// The parts of a line that differ from sink to sink.
struct LINE_FORM {
    bool prefix;
    const TIME_STAMP* time;  // null: none
    std::string_view end;
    bool wholeBreaks = false;  // each line feed that has no carriage return before it is given one
};

void AppendText(LINE_BUFFER& line, std::string_view text, const LINE_FORM& form) {
    if (form.wholeBreaks)
        line.AppendWholeBreaks(text);
    else
        line.Append(text);
}

// False: there is no memory for the line.
bool Compose(DEBUG_STATE& state, LINE_BUFFER& line, std::string_view message, const LINE_FORM& form) {
    line.Clear();
    const size_t breaks = form.prefix ? LeadingBreaks(message) : 0;
    AppendText(line, message.substr(0, breaks), form);
    if (form.time != nullptr) AppendTime(state, line, *form.time);
    if (form.prefix) AppendPrefix(state, line);
    AppendText(line, message.substr(breaks), form);
    line.Append(form.end);
    return !line.Failed();
}

void ToHook(const DEBUG_STATE& state, LINE_BUFFER& line) {
    if (const char* const text = line.Terminated()) state.hook(STRING(text).Text());
}

void ToDebugger(const DEBUG_STATE& state, LINE_BUFFER& line) {
    const char* const text = line.Terminated();
    if (text == nullptr) return;
    if ((state.mode & DEBUG_MODE_KERNEL) == 0) return OutputDebugStringW(STRING(text).Text());
    static const KERNEL_PRINT kernelPrint = FindKernelPrint();
    if (kernelPrint != nullptr) kernelPrint(KernelComponent, KernelLevel, "%s", text);
}

void ToConsole(std::string_view text) {
    const HANDLE console = GetStdHandle(STD_OUTPUT_HANDLE);
    if (console == nullptr || console == INVALID_HANDLE_VALUE) return;
    DWORD written = 0;
    WriteFile(console, text.data(), static_cast<DWORD>(text.size()), &written, nullptr);
}

void ToLogFile(DEBUG_STATE& state, std::string_view text) {
    if (OpenLogFile(state)) WriteLogFile(state, text);
}

}  // namespace

void WriteLine(DEBUG_STATE& state, DWORD flags, std::string_view message) {
    const bool framed = (flags & DEBUG_RAW) == 0;
    const bool ended = (flags & DEBUG_NO_LINE_END) == 0;
    const bool debugger = ((state.mode & DEBUG_MODE_DEBUGGER) | (flags & DEBUG_FORCE_DEBUGGER)) != 0;
    const bool logFile = ((state.mode & DEBUG_MODE_LOG) | (flags & DEBUG_FORCE_LOG)) != 0;
    TIME_STAMP now;
    const TIME_STAMP* const time = ReadTime(state, framed, now);
    LINE_BUFFER& line = state.composed;
    if (state.hook != nullptr && Compose(state, line, message, {false, nullptr, {}})) {
        WithinMemory([&] { ToHook(state, line); });
    }
    if (debugger && Compose(state, line, message, {framed, time, ended ? DebuggerLineEnd : std::string_view()})) {
        WithinMemory([&] { ToDebugger(state, line); });
    }
    if ((state.mode & DEBUG_MODE_CONSOLE) != 0 && Compose(state, line, message, {framed, nullptr, DebuggerLineEnd})) {
        ToConsole(line.View());
    }
    if (logFile && Compose(state, line, message, {framed, time, ended ? LogLineEnd : std::string_view(), true})) {
        WithinMemory([&] { ToLogFile(state, line.View()); });
    }
}

void WriteSeparator(DEBUG_STATE& state) {
    LINE_BUFFER& line = state.composed;
    if (Compose(state, line, "\n", {false, nullptr, {}})) {
        if (state.hook != nullptr) WithinMemory([&] { ToHook(state, line); });
        if ((state.mode & DEBUG_MODE_DEBUGGER) != 0) WithinMemory([&] { ToDebugger(state, line); });
    }
    if ((state.mode & DEBUG_MODE_CONSOLE) != 0) ToConsole("\n");
    if ((state.mode & DEBUG_MODE_LOG) != 0) WithinMemory([&] { ToLogFile(state, LogLineEnd); });
}

void WriteDebuggerLine(DEBUG_STATE& state, bool withPrefix, const WCHAR* format, FORMAT_ARGUMENTS arguments) {
    WithinMemory([&] {
        STRING text;
        text.FormatV(format, arguments);  // which may be a string-table id
        LINE_BUFFER message, line;
        message.AppendWide(text.View());
        TIME_STAMP now;
        const LINE_FORM form{withPrefix, ReadTime(state, withPrefix, now),
                             withPrefix ? DebuggerLineEnd : std::string_view()};
        if (!message.Failed() && Compose(state, line, message.View(), form)) ToDebugger(state, line);
    });
}

}  // namespace keldwick
