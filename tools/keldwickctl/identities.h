// Which addresses `keldwickctl identities --address` means.
#pragma once

#include <optional>
#include <string>

namespace tools {

// A net, or one address.
struct ADDRESS_NET {
    std::string bytes;  // 4 or 16
    unsigned bits = 0;  // how many of them count

    bool Holds(const std::string& address) const;  // false for a text that is no address
};

// "10.1.2.3", "10.1.0.0/16", "2001:db8::/32". Nothing: it is none of these.
std::optional<ADDRESS_NET> ParseNet(const std::string& text);

}  // namespace tools
