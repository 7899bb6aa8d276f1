// Whether a send first looks for a close that has arrived.
#pragma once

namespace keldwick {

enum class SEND_LOOK {
    FIRST,
    HAPPENED,  // the caller has just called ProcessEvents; the look is left out where that found nothing at all
};

}  // namespace keldwick
