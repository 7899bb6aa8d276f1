// The plain transport.
#pragma once

#include "protocol/identity_transport.h"

namespace keldwick {

class IDENTITY_TCP : public IDENTITY_TRANSPORT<IPPort> {
public:
    explicit IDENTITY_TCP(IDENTITY_PROTOCOL& owner);

    bool ConnectPlain(const STRING& server) { return ConnectTo(server); }
};

}  // namespace keldwick
