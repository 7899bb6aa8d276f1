// TLS over TCP. Threads and texts as in ipport.h, with one exception: FireSSLServerAuthentication is a question, and
// comes before the end of its step.
#pragma once

#include "component/ipport.h"

namespace keldwick {

class IPPortS : public virtual IPPort {
public:
    // One setting, "NAME=VALUE". "SSLEnabledProtocols" is a decimal set of protocol bits (TLS 1.0: 0xC0, 1.1: 0x300,
    // 1.2: 0xC00, 1.3: 0x3000), which holds from the next Connect on; at first 1.2 alone. Otherwise an error code.
    int Config(const char* setting);

    // certificate: DER, certificateLength bytes. status: how the check of the certificate ended. *accept: whether the
    // connection is to go on; preset to the check's result. Left 0, Error 280 and Disconnected follow.
    virtual int FireSSLServerAuthentication(const BYTE* certificate, int certificateLength, const char* subject,
                                            const char* issuer, const char* status, int* accept);
    virtual int FireSSLStatus(const char*) { return 0; }  // message

private:
    bool Step() override;
    bool StartHandshake();
    bool ContinueHandshake();
    bool Authenticate();

    DWORD protocols = TlsProtocol1_2;
};

}  // namespace keldwick
