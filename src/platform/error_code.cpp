#include "platform/error_code.h"

#include <winsock2.h>

namespace keldwick {

ERROR_CODE ERROR_CODE::FromSockets() { return ERROR_CODE(static_cast<DWORD>(WSAGetLastError())); }

}  // namespace keldwick
