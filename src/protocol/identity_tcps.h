// The TLS transport. It offers TLS 1.1 and 1.2 and accepts every server certificate.
#pragma once

#include "protocol/identity_transport.h"

namespace keldwick {

class IDENTITY_TCPS : public IDENTITY_TRANSPORT<IPPortS> {
public:
    explicit IDENTITY_TCPS(IDENTITY_PROTOCOL& owner);

    bool ConnectSecure(const STRING& server) { return ConnectTo(server); }

    int FireSSLServerAuthentication(const BYTE* certificate, int certificateLength, const char* subject,
                                    const char* issuer, const char* status, int* accept) override;
    int FireSSLStatus(const char* message) override;
};

}  // namespace keldwick
