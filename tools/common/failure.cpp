#include "tools/common/failure.h"

#include <cerrno>

#include "platform/error_text.h"
#include "win32/files/machine_root.h"
#include "win32/files/root_files.h"
#include "win32/registry/store.h"
#include "win32/text/utf.h"

namespace tools {

std::string FailureText(DWORD code) {
    if (code == ERROR_CANT_ACCESS_FILE) return win32::FileFault(ELOOP);
    const std::string text = win32::ToUtf8(keldwick::ErrorText(code).View());
    return text.empty() ? "error " + std::to_string(code) : text;
}

void FailCommand(const std::string& what, DWORD code) { throw COMMAND_ERROR(what + ": " + FailureText(code)); }

void FailFile(const std::string& what) { throw COMMAND_ERROR(what + ": " + win32::FileFault(errno)); }

void FailRegistry(const std::string& what, DWORD code) {
    const std::string problem = win32::REG_STORE::Current().Problem();
    const bool ofFile = code == ERROR_BADDB || code == ERROR_SHARING_VIOLATION;
    if (ofFile && !problem.empty()) throw COMMAND_ERROR(what + ": " + problem);
    if (code == ERROR_LOCK_VIOLATION)
        throw COMMAND_ERROR(what + ": another process holds the lock " + win32::MachinePath("registry.reg.lock"));
    FailCommand(what, code);
}

}  // namespace tools
