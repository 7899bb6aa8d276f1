#include "win32/directory/class_registry.h"

#include <algorithm>
#include <mutex>
#include <vector>

namespace win32 {
namespace {

struct REGISTERED_CLASS {
    CLSID clsid;
    CLASS_FACTORY factory;
};
struct REGISTERED_PROVIDER {
    std::u16string_view name;
    DIRECTORY_PROVIDER provider;
};
struct REGISTRY {
    std::mutex lock;
    std::vector<REGISTERED_CLASS> classes;
    std::vector<REGISTERED_PROVIDER> providers;
};

// Never destroyed: objects may still be asked for while the process ends.
REGISTRY& Registry() {
    static REGISTRY& registry = *new REGISTRY;
    return registry;
}

void RegisterOwnClassesOnce() {
    static std::once_flag once;
    std::call_once(once, RegisterOwnClasses);
}

}  // namespace

void RegisterClass(REFCLSID clsid, CLASS_FACTORY factory) {
    REGISTRY& registry = Registry();
    const std::lock_guard guard(registry.lock);
    std::erase_if(registry.classes, [&](const REGISTERED_CLASS& known) { return SameGuid(known.clsid, clsid); });
    if (factory != nullptr) registry.classes.push_back({clsid, factory});
}

void RegisterProvider(std::u16string_view name, DIRECTORY_PROVIDER provider) {
    REGISTRY& registry = Registry();
    const std::lock_guard guard(registry.lock);
    std::erase_if(registry.providers, [&](const REGISTERED_PROVIDER& known) { return known.name == name; });
    if (provider != nullptr) registry.providers.push_back({name, provider});
}

CLASS_FACTORY FindClass(REFCLSID clsid) {
    RegisterOwnClassesOnce();
    REGISTRY& registry = Registry();
    const std::lock_guard guard(registry.lock);
    for (const REGISTERED_CLASS& known : registry.classes)
        if (SameGuid(known.clsid, clsid)) return known.factory;
    return nullptr;
}

DIRECTORY_PROVIDER FindProvider(std::u16string_view path) {
    RegisterOwnClassesOnce();
    REGISTRY& registry = Registry();
    const std::lock_guard guard(registry.lock);
    for (const REGISTERED_PROVIDER& known : registry.providers)
        if (path.starts_with(known.name)) return known.provider;
    return nullptr;
}

}  // namespace win32
