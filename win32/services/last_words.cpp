#include "win32/services/last_words.h"

#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <exception>
#include <new>

namespace win32 {
namespace {

int status = UncaughtExceptionStatus;

void Say(const char* text) {
    [[maybe_unused]] const ssize_t written = write(STDERR_FILENO, text, strlen(text));  // a failure cannot be reported
}

[[noreturn]] void SpeakAndEnd() {
    Say(program_invocation_short_name);
    Say(": ended: ");
    try {
        if (const std::exception_ptr exception = std::current_exception()) std::rethrow_exception(exception);
        Say("terminated without an exception");
    } catch (const std::bad_alloc&) {
        Say("not enough memory");
    } catch (const std::exception& exception) {
        Say(exception.what());
    } catch (...) {  // the agent's own, which it throws for want of memory alone
        Say("not enough memory for a text");
    }
    Say("\n");
    _exit(status);
}

}  // namespace

void EndOnUncaughtException(int exitStatus) {
    status = exitStatus;
    std::set_terminate(SpeakAndEnd);
}

}  // namespace win32
