// Host names: of an address, and of the local computer with its addresses.
#pragma once

#include "platform/ip_address.h"

namespace keldwick {

// Filled by LoadLocalHostInfo on the main thread before any other thread starts; only read afterwards.
struct LOCAL_HOST_INFO {
    STRING hostName;
    STRING ipV4;  // the first local address other than 127.0.0.1; empty when there is none
    STRING ipV6;  // the first other than ::1
};
extern LOCAL_HOST_INFO LocalHostInfo;

// Finds the local host's name and addresses, and logs them. What cannot be found stays empty, with a message.
void LoadLocalHostInfo();

// The name of the host at that address; an address without a name fails. The event, once signalled, ends the wait for
// the answer. False: the reason is the last error, ERROR_CANCELLED when the event ended the wait.
bool LookupHostName(const SOCKADDR* address, DWORD length, STRING& name, HANDLE stopEvent);

// Fills in the local address of the family that `address` asks for, or else of the other one. False when there is
// none. `text`, when given, is pointed at the address's text. Stays true when the text does not parse (family 0).
bool GetLocalAddress(IP_ADDRESS& address, const STRING** text = nullptr);

}  // namespace keldwick
