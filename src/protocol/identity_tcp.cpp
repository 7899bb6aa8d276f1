#include "protocol/identity_tcp.h"

namespace keldwick {

namespace {

const TRANSPORT_TRAITS Plain = {
    .selector = TRANSPORT::PLAIN,
    .port = PlainPort,
    .name = TEXT("IDENTITY_TCP"),
    .connecting = TEXT("Connecting to Identity server = %s:%u ..."),
    .error = TEXT("%s::FireError:\n    Error code = %d,\n    Description = %s"),
    .eventsOfError = [](int) { return SESSION_ERROR; },
};

}  // namespace

IDENTITY_TCP::IDENTITY_TCP(IDENTITY_PROTOCOL& owner) : IDENTITY_TRANSPORT(owner, Plain) {}

}  // namespace keldwick
