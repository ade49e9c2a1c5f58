// Where the unit tests step in between the product and its platform layer. The product is a static
// library: a function that the test program defines takes the place of the library's whole object
// file. The files of this folder compile that object's source once more, with the functions that
// are to be replaced under the names below; digest_failure.cpp, random_failure.cpp,
// thread_failure.cpp, wait_watch.cpp and child_watch.cpp define the replaced ones and call these.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "platform/crypto.h"
#include "platform/process.h"
#include "platform/thread.h"

namespace kova {

[[nodiscard]] bool real_sha256_digest(std::string_view data, std::uint8_t (&digest)[kSha256Size]);
[[nodiscard]] bool real_hmac_sha256_digest(std::string_view data, std::string_view key,
                                           std::uint8_t (&digest)[kSha256Size]);
[[nodiscard]] bool real_random_bytes(std::uint8_t* data, std::size_t size);
[[nodiscard]] bool real_start_detached(Thread::Entry entry, void* argument);

namespace testing {

[[nodiscard]] bool real_thread_start(Thread& thread, Thread::Entry entry, void* argument);
void real_wait_within(Condition& condition, Mutex& mutex, std::uint32_t milliseconds);
[[nodiscard]] bool real_child_start(ChildProcess& child, const char* argument);
[[nodiscard]] std::uint32_t real_child_collect(ChildProcess& child);

}  // namespace testing
}  // namespace kova
