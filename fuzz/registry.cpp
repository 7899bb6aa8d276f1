// Any bytes as a registry file: what is read must come back the same after it was written, comments included.
#include "win32/registry/reg_text.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>

using namespace win32;

namespace {

bool SameTree(const REG_NODE& a, const REG_NODE& b) {
    if (a.children.size() != b.children.size() || !SameValues(a.values, b.values)) return false;
    for (const auto& [name, child] : a.children) {
        const auto other = b.children.find(name);
        if (other == b.children.end() || !SameTree(*child, *other->second)) return false;
    }
    return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    REG_TEXT_ERROR error;
    const std::optional<REG_TREE> tree = ParseRegText({reinterpret_cast<const char*>(data), size}, error);
    if (!tree) return 0;
    const std::string text = WriteRegText(*tree);
    const std::optional<REG_TREE> again = ParseRegText(text, error);
    // A list of bytes takes five times its size: only then may the text be refused for its length.
    if (!again && text.size() > MaxFileBytes) return 0;
    if (!again || !SameTree(tree->root, again->root) || WriteRegText(*again) != text) std::abort();
    return 0;
}
