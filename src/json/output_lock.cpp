#include "json/output_lock.h"

namespace kova {

constinit SpinLock OutputLock;

}  // namespace kova
