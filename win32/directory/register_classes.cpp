#include "win32/directory/class_registry.h"

namespace win32 {

// There is no directory behind the layer yet: the look-ups fail as on a machine without these classes.
void RegisterOwnClasses() {}

}  // namespace win32
