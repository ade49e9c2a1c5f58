// Ends the process when an assertion of the standard library fails: an index, a position or an
// optional value that is not there.
#include <cstdlib>

// Stands in for the library's own function of this name, which would link its formatted output:
// 90 KiB more, and twice the cost of the assertions. Its declaration comes with the library's
// configuration, wherever the assertions are on.
namespace std {  // NOLINT(cert-dcl58-cpp)

// NOLINTNEXTLINE(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
void __glibcxx_assert_fail(const char*, int, const char*, const char*) noexcept {
  abort();
}

}  // namespace std
