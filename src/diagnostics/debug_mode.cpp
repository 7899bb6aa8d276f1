#include "diagnostics/debug_mode.h"

#include <array>

#include "diagnostics/debug_state.h"
#include "platform/critical_section.h"

namespace keldwick {
namespace {

struct DEBUG_FLAG_NAME {
    DWORD flag;
    const WCHAR* name;
};

// In the order in which they are printed.
constexpr std::array DEBUG_FLAG_NAMES = {
    DEBUG_FLAG_NAME{DEBUG_MODE_DEBUGGER, TEXT("Debugger")},
    DEBUG_FLAG_NAME{DEBUG_MODE_KERNEL, TEXT("Kernel")},
    DEBUG_FLAG_NAME{DEBUG_MODE_LOG, TEXT("Log")},
    DEBUG_FLAG_NAME{DEBUG_MODE_OVERWRITE, TEXT("Overwrite existing")},
    DEBUG_FLAG_NAME{DEBUG_MODE_RENAME, TEXT("Rename existing")},
    DEBUG_FLAG_NAME{DEBUG_VERBOSE, TEXT("Verbose")},
    DEBUG_FLAG_NAME{DEBUG_AD, TEXT("Custom1")},
    DEBUG_FLAG_NAME{DEBUG_TCP, TEXT("Custom2")},
    DEBUG_FLAG_NAME{0x800, TEXT("Custom3")},
    DEBUG_FLAG_NAME{0x1000, TEXT("Custom4")},
    DEBUG_FLAG_NAME{DEBUG_MODE_INTERNAL, TEXT("Internal")},
    DEBUG_FLAG_NAME{DEBUG_MODE_CONSOLE, TEXT("Console")},
    DEBUG_FLAG_NAME{DEBUG_MODE_NO_TIME_STAMP, TEXT("No time stamp")},
};

struct CATEGORY_NAMES {
    CRITICAL_SECTION_OWNER lock;
    STRING ad{TEXT("Custom1")};
    STRING tcp{TEXT("Custom2")};
};

CATEGORY_NAMES& CategoryNames() {
    static CATEGORY_NAMES& names = *new CATEGORY_NAMES;  // never destroyed: the output is used until the very end
    return names;
}

using PRINTED_NAMES = std::array<STRING, DEBUG_FLAG_NAMES.size()>;

PRINTED_NAMES CompleteNames() {
    CATEGORY_NAMES& categories = CategoryNames();
    const LOCK_GUARD guard(categories.lock);
    PRINTED_NAMES names;
    for (size_t i = 0; i < names.size(); ++i) {
        const DWORD flag = DEBUG_FLAG_NAMES[i].flag;
        if (flag == DEBUG_AD)
            names[i] = categories.ad;
        else if (flag == DEBUG_TCP)
            names[i] = categories.tcp;
        else
            names[i].Assign(DEBUG_FLAG_NAMES[i].name);
    }
    return names;
}

}  // namespace

void SetDebugCategoryName(DWORD category, const WCHAR* name) {
    CATEGORY_NAMES& names = CategoryNames();
    const LOCK_GUARD guard(names.lock);
    WithinMemory([&] {
        if (category == DEBUG_AD) names.ad.Assign(name);
        if (category == DEBUG_TCP) names.tcp.Assign(name);
    });
}

STRING FormatDebugOutputMode(DWORD mode) {
    static const PRINTED_NAMES& names = *new PRINTED_NAMES(CompleteNames());
    STRING text;
    for (size_t i = 0; i < names.size(); ++i) {
        const DWORD flag = DEBUG_FLAG_NAMES[i].flag;
        if ((mode & flag) != flag) continue;
        mode &= ~flag;
        if (!text.IsEmpty()) text.Append(TEXT(", "));
        text.Append(names[i].View());
    }
    return text.IsEmpty() ? STRING(TEXT("None")) : text;
}

}  // namespace keldwick
