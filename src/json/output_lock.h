// The one lock of standard output.
#pragma once

#include "platform/thread.h"

namespace kova {

/// Held by whoever writes a reply line to standard output, for as long as the line takes and no
/// longer. No other lock is taken while it is held.
extern SpinLock OutputLock;

}  // namespace kova
