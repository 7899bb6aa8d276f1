// The plain transport.
#pragma once

#include "protocol/identity_transport.h"

namespace keldwick {

class IDENTITY_TCP : public IDENTITY_TRANSPORT<IPPort> {
public:
    explicit IDENTITY_TCP(IDENTITY_PROTOCOL& owner);

    // One connection attempt of up to 20 s.
    bool ConnectPlain(const STRING& server);

    int FireError(int errorCode, const char* description) override;
};

}  // namespace keldwick
