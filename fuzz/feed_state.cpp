// Any bytes as a feed's state: a stream sets damaged state aside and goes on; what was saved reads back the same.
#include <cstddef>
#include <cstdint>
#include <cstdlib>

#include "tests/support/temporary_root.h"
#include "tools/common/failure.h"
#include "tools/feed/state.h"

using namespace tools::feed;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size);

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    static const TEMPORARY_ROOT root;
    root.Write("feed/fuzz.state", std::string(reinterpret_cast<const char*>(data), size));
    STATE follower;
    bool readable = true;
    try {
        LoadState("fuzz", follower);
    } catch (const tools::COMMAND_ERROR&) {
        readable = false;
    }
    const STATE_FILE file("fuzz", KIND::STREAM);
    STATE state, again;
    std::string damage;
    if (file.Load(state, damage) != readable || damage.empty() != readable) std::abort();
    COUNTS added{1, 2, 3};
    if (!file.Save(state, added) || added.records != 0 || !LoadState("fuzz", again)) std::abort();
    if (again.records != state.records || again.places != state.places || again.written != state.written) std::abort();
    return 0;
}
