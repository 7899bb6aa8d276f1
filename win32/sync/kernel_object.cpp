#include "win32/sync/kernel_object.h"

#include <cstdint>
#include <mutex>
#include <utility>
#include <vector>

#include "win32/text/last_error.h"

namespace win32 {
namespace {

// A handle is (generation, index + 1) above two zero bits: never 0, never -1, and a closed one differs from the handle
// that uses its slot next.
constexpr int TagBits = 2;
constexpr int IndexBits = 24;
constexpr uintptr_t IndexMask = (uintptr_t{1} << IndexBits) - 1;
constexpr uint32_t GenerationMask = 0xFFFFFF;

class HANDLE_TABLE {
public:
    HANDLE Enter(std::shared_ptr<KERNEL_OBJECT> object) {
        const std::lock_guard guard(lock);
        size_t index = slots.size();
        if (unused.empty()) {
            // So that Remove never allocates.
            if (unused.capacity() <= slots.size()) unused.reserve(2 * slots.size() + 16);
            slots.push_back({std::move(object), 0});
        } else {
            index = unused.back();
            unused.pop_back();
            slots[index].object = std::move(object);
        }
        return ToHandle(index, slots[index].generation);
    }

    bool Find(const HANDLE* handles, size_t count, std::shared_ptr<KERNEL_OBJECT>* objects) {
        const std::lock_guard guard(lock);
        for (size_t i = 0; i < count; ++i) {
            if (handles[i] == GetCurrentProcess()) continue;
            const SLOT* slot = SlotOf(handles[i]);
            if (slot == nullptr) return false;
            objects[i] = slot->object;
        }
        return true;
    }

    std::shared_ptr<KERNEL_OBJECT> Find(HANDLE handle) {
        const std::lock_guard guard(lock);
        const SLOT* slot = SlotOf(handle);
        return slot ? slot->object : nullptr;
    }

    // The removed object, for its destructor to run outside the lock.
    std::shared_ptr<KERNEL_OBJECT> Remove(HANDLE handle) {
        const std::lock_guard guard(lock);
        SLOT* slot = SlotOf(handle);
        if (slot == nullptr) return nullptr;
        slot->generation = (slot->generation + 1) & GenerationMask;
        unused.push_back(static_cast<size_t>(slot - slots.data()));
        return std::exchange(slot->object, nullptr);
    }

private:
    struct SLOT {
        std::shared_ptr<KERNEL_OBJECT> object;  // null: unused
        uint32_t generation;
    };

    static HANDLE ToHandle(size_t index, uint32_t generation) {
        const uintptr_t value = (uintptr_t{generation} << IndexBits | (index + 1)) << TagBits;
        return reinterpret_cast<HANDLE>(value);
    }

    SLOT* SlotOf(HANDLE handle) {
        const uintptr_t value = reinterpret_cast<uintptr_t>(handle) >> TagBits;
        const size_t number = value & IndexMask;
        if (number == 0 || number > slots.size()) return nullptr;
        SLOT& slot = slots[number - 1];
        return slot.object && ToHandle(number - 1, slot.generation) == handle ? &slot : nullptr;
    }

    std::mutex lock;
    std::vector<SLOT> slots;
    std::vector<size_t> unused;
};

// Never destroyed: handles are used by threads and destructors that outlive main.
HANDLE_TABLE& Table() {
    static HANDLE_TABLE& table = *new HANDLE_TABLE;
    return table;
}

}  // namespace

std::mutex& DispatcherLock() {
    static std::mutex& lock = *new std::mutex;
    return lock;
}

HANDLE NewHandle(std::shared_ptr<KERNEL_OBJECT> object) { return Table().Enter(std::move(object)); }

std::shared_ptr<KERNEL_OBJECT> ObjectOf(HANDLE handle) {
    std::shared_ptr<KERNEL_OBJECT> object = Table().Find(handle);
    if (!object) SetLastError(ERROR_INVALID_HANDLE);
    return object;
}

bool ObjectsOf(const HANDLE* handles, DWORD count, std::shared_ptr<KERNEL_OBJECT>* objects) {
    return Table().Find(handles, count, objects) || FailWith(ERROR_INVALID_HANDLE);
}

bool RemoveHandle(HANDLE handle) { return Table().Remove(handle) != nullptr || FailWith(ERROR_INVALID_HANDLE); }

}  // namespace win32

BOOL WINAPI CloseHandle(HANDLE handle) {
    return handle == GetCurrentProcess() || win32::RemoveHandle(handle);  // a pseudo handle needs no closing
}
