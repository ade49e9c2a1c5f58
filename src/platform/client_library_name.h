// What the engine's client library is called on this platform.
#pragma once

namespace kova {

extern const char* const kClientLibraryName;

}  // namespace kova
