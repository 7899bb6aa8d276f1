// Reports an event whose message has the text of an error code as %1 and its number as %2.
#pragma once

#include <windows.h>

#include "diagnostics/event_source.h"
#include "platform/error_text.h"
#include "platform/string.h"

namespace keldwick {

// `more` are the wide texts for %3 and on.
template <typename... MORE>
void ReportFailureEvent(WORD type, DWORD eventId, DWORD error, MORE... more) {
    ReportServiceEvent(type, eventId, {ErrorText(error).Text(), FormatString(TEXT("%lu"), error).Text(), more...});
}

}  // namespace keldwick
