#include "directory/directory_binding.h"

namespace keldwick {

void SetBindingServer(DIRECTORY_BINDING& binding, const WCHAR* server, const WCHAR* user, const WCHAR* password) {
    binding.kind = BINDING_SERVER;
    binding.server.Assign(server);
    if (user == nullptr || password == nullptr) return;
    binding.user.Assign(user);
    binding.password.Assign(password);
}

}  // namespace keldwick
