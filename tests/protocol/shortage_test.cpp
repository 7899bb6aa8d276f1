// A session that was made when there was no descriptor to be had.
#include "tests/protocol/session.h"
#include "tests/support/no_descriptors.h"

namespace keldwick {
namespace {

class SHORTAGE_TEST : public SESSION_TEST {};

TEST_F(SHORTAGE_TEST, ASessionMadeInAShortageConnectsAfterIt) {
    const SCRIPTED_SERVER server;
    {
        const NO_DESCRIPTORS shortage;
        session = std::make_unique<IDENTITY_PROTOCOL>();
        EXPECT_FALSE(session->Connect(Settings.identServer));
    }
    EXPECT_TRUE(session->Connect(Settings.identServer));
    EXPECT_FALSE(session->IsDisconnected());
}

}  // namespace
}  // namespace keldwick
