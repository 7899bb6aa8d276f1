// Places in the only structure that files hold as it stands, checked where this is compiled: by the layer's headers and
// by Windows' own. A field of another width moves those after it.
#include <windows.h>

#include <cstddef>

namespace {

static_assert(offsetof(EVENTLOGRECORD, TimeGenerated) == 12 && offsetof(EVENTLOGRECORD, EventType) == 24);
static_assert(offsetof(EVENTLOGRECORD, EventCategory) == 28 && offsetof(EVENTLOGRECORD, StringOffset) == 36);
static_assert(offsetof(EVENTLOGRECORD, DataOffset) == 52 && sizeof(EVENTLOGRECORD) == 56);

}  // namespace
