#include "resources/resource_tables.h"

#include <iterator>

namespace keldwick {
namespace {

constexpr RESOURCE_STRING Strings[] = {
#define KELDWICK_STRING(id, text) {id, TEXT(text)},
#include "resources/string_table.inc"
#undef KELDWICK_STRING
};

constexpr RESOURCE_MESSAGE Messages[] = {
#define KELDWICK_MESSAGE(name, id, text) {id, TEXT(text)},
#include "resources/message_table.inc"
#undef KELDWICK_MESSAGE
};

constexpr RESOURCE_VERSION_VALUE VersionValues[] = {
#define KELDWICK_VERSION_VALUE(name, text) {TEXT(name), TEXT(text)},
#include "resources/version.inc"
#undef KELDWICK_VERSION_VALUE
};

template <typename ROW, size_t COUNT>
constexpr bool Ascending(const ROW (&rows)[COUNT]) {
    for (size_t i = 1; i < COUNT; ++i)
        if (rows[i - 1].id >= rows[i].id) return false;
    return true;
}
static_assert(Ascending(Strings) && Ascending(Messages));

}  // namespace

RESOURCE_TABLE<RESOURCE_STRING> StringTable() { return {Strings, std::size(Strings)}; }
RESOURCE_TABLE<RESOURCE_MESSAGE> MessageTable() { return {Messages, std::size(Messages)}; }
RESOURCE_TABLE<RESOURCE_VERSION_VALUE> VersionResource() { return {VersionValues, std::size(VersionValues)}; }

}  // namespace keldwick
