#include "directory/group_list.h"

#include "platform/collation_hash.h"

namespace keldwick {

GROUP* GROUP_LIST::Add(const WCHAR* dn) {
    const size_t hash = CollationHash(dn);
    const auto [begin, end] = index.equal_range(hash);
    for (auto candidate = begin; candidate != end; ++candidate)
        if (candidate->second->dn.EqualsNoCase(dn)) return nullptr;
    GROUP& group = entries.emplace_back();
    group.dn.Assign(dn);
    index.emplace(hash, &group);
    return &group;
}

}  // namespace keldwick
