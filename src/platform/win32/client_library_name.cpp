#include "platform/client_library_name.h"

namespace kova {

constinit const char* const kClientLibraryName = "kovadll.dll";

}  // namespace kova
