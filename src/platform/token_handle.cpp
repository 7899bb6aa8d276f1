#include "platform/token_handle.h"

#include "diagnostics/debug_output.h"
#include "platform/error_text.h"

namespace keldwick {
namespace {

constexpr DWORD ErrorInvalidSid = 4312;  // the reason given when the token's SID has no length

bool InformationFailed(TOKEN_INFORMATION_CLASS what) {
    DebugPrintError(ERROR_CODE(), TEXT("TOKEN_HANDLE::GetInformation: GetTokenInformation class = %d failed"), what);
    return false;
}

bool OutOfMemory() {
    SetLastError(ERROR_NOT_ENOUGH_MEMORY);
    return false;
}

}  // namespace

bool TOKEN_HANDLE::GetInformation(TOKEN_INFORMATION_CLASS what, HEAP_BUFFER& information) const {
    DWORD needed = 0;
    if (GetTokenInformation(Get(), what, nullptr, 0, &needed)) return false;
    if (GetLastError() != ERROR_INSUFFICIENT_BUFFER) return false;
    HEAP_BUFFER buffer;
    if (!buffer.Resize(needed)) return OutOfMemory();
    if (!GetTokenInformation(Get(), what, buffer.Data(), needed, &needed)) return InformationFailed(what);
    information = std::move(buffer);
    return true;
}

bool TOKEN_HANDLE::GetSessionId(DWORD& session) const {
    DWORD found = 0;
    DWORD needed = 0;
    if (!GetTokenInformation(Get(), TokenSessionId, &found, sizeof(found), &needed)) {
        return InformationFailed(TokenSessionId);
    }
    session = found;
    return true;
}

bool TOKEN_HANDLE::GetUserSid(HEAP_BUFFER& sid) const {
    HEAP_BUFFER information;
    if (!GetInformation(TokenUser, information)) return false;
    const bool holdsUser = information.Size() >= sizeof(TOKEN_USER);
    const PSID user = holdsUser ? information.As<TOKEN_USER>()->User.Sid : nullptr;
    const DWORD length = holdsUser ? GetLengthSid(user) : 0;
    if (length == 0) {
        SetLastError(ErrorInvalidSid);
        return false;
    }
    return sid.Assign(user, length) || OutOfMemory();
}

bool GetProcessUserSid(HEAP_BUFFER& sid, DWORD& session) {
    TOKEN_HANDLE token;
    return OpenProcessToken(GetCurrentProcess(), TOKEN_ALL_ACCESS, token.Put()) && token.GetSessionId(session) &&
           token.GetUserSid(sid);
}

}  // namespace keldwick
