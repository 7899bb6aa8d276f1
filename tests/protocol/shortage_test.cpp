// A session that was made when there was no event and no timer to be had.
#include "tests/protocol/session.h"
#include "tests/support/fail_call.h"

WRAP_CALL(HANDLE, CreateEventW, (LPSECURITY_ATTRIBUTES s, BOOL manual, BOOL set, LPCWSTR name), (s, manual, set, name))
WRAP_CALL(HANDLE, CreateWaitableTimerW, (LPSECURITY_ATTRIBUTES s, BOOL manual, LPCWSTR name), (s, manual, name))

namespace keldwick {
namespace {

class SHORTAGE_TEST : public SESSION_TEST {};

TEST_F(SHORTAGE_TEST, ASessionMadeInAShortageConnectsAfterIt) {
    const SCRIPTED_SERVER server;
    {
        const FAIL_CALL noEvent(CreateEventW_calls, 0, ERROR_TOO_MANY_OPEN_FILES);
        const FAIL_CALL noTimer(CreateWaitableTimerW_calls, 0, ERROR_TOO_MANY_OPEN_FILES);
        session = std::make_unique<IDENTITY_PROTOCOL>();
        EXPECT_FALSE(session->Connect(Settings.identServer));
        EXPECT_LT(0, noEvent.Failed());
        EXPECT_LT(0, noTimer.Failed());
    }
    EXPECT_TRUE(session->Connect(Settings.identServer));
    EXPECT_FALSE(session->IsDisconnected());
}

}  // namespace
}  // namespace keldwick
