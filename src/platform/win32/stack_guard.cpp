// What -fstack-protector-strong needs at run time. The compiler's own library draws its value from
// a system library whose loading takes longer than a whole call.
#include <windows.h>

#include <cpuid.h>
#include <immintrin.h>

#include <cstdint>

namespace kova {

namespace {

/// STATUS_STACK_BUFFER_OVERRUN.
constexpr UINT kOverrunExitCode = 0xC0000409;
/// The lowest byte is zero, so that no copied text can hold the value.
constexpr std::uintptr_t kWithoutLowestByte = ~std::uintptr_t{0xFF};

bool has_random_instruction() {
  unsigned a = 0;
  unsigned b = 0;
  unsigned c = 0;
  unsigned d = 0;
  return __get_cpuid(1, &a, &b, &c, &d) != 0 && (c & bit_RDRND) != 0;
}

__attribute__((target("rdrnd"))) std::uint64_t random_word() {
  unsigned long long word = 0;
  // RDRAND fails while the generator has no number ready; ten tries are what Intel recommends.
  for (int tries = 0; tries < 10; ++tries) {
    if (_rdrand64_step(&word) != 0) return word;
  }
  return 0;
}

/// What differs from process to process also where the processor draws no random numbers.
std::uint64_t word_of_this_start() {
  LARGE_INTEGER counter{};
  ::QueryPerformanceCounter(&counter);
  FILETIME time{};
  ::GetSystemTimeAsFileTime(&time);
  const std::uint64_t address = reinterpret_cast<std::uintptr_t>(&counter);
  return (static_cast<std::uint64_t>(counter.QuadPart) << 24U) ^
         (std::uint64_t{time.dwLowDateTime} << 16U) ^
         (std::uint64_t{::GetCurrentProcessId()} << 48U) ^ (address << 8U);
}

}  // namespace

}  // namespace kova

// The names are the compiler's.
// NOLINTBEGIN(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
extern "C" {

std::uintptr_t __stack_chk_guard = 0;

[[noreturn]] void __stack_chk_fail();

void __stack_chk_fail() {
  ::TerminateProcess(::GetCurrentProcess(), kova::kOverrunExitCode);
  __builtin_trap();
}

// Runs before every other constructor.
__attribute__((constructor(101))) static void draw_stack_guard() {
  std::uint64_t word = kova::word_of_this_start();
  if (kova::has_random_instruction()) word ^= kova::random_word();
  __stack_chk_guard = word & kova::kWithoutLowestByte;
}
}
// NOLINTEND(bugprone-reserved-identifier,cert-dcl37-c,cert-dcl51-cpp)
