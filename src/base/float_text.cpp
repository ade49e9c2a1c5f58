#include "base/float_text.h"

#include <clocale>
#include <cstdio>
#include <cstdlib>

namespace kova {

namespace {

constexpr std::size_t kWrittenCapacity = 32;
/// The longest number, with a decimal point of several bytes as some locales have.
constexpr std::size_t kReadCapacity = kFloatTextLimit + 16;

}  // namespace

bool append_float(TextOut& out, float number) {
  char text[kWrittenCapacity];
  const int length = std::snprintf(text, sizeof text, "%.9g", static_cast<double>(number));
  if (length <= 0 || static_cast<std::size_t>(length) >= sizeof text) return false;
  const std::string_view written(text, static_cast<std::size_t>(length));
  // Any byte but a digit, a sign and the exponent's letter belongs to the locale's decimal point.
  const std::size_t point = written.find_first_not_of("-+0123456789e");
  if (point == written.npos) return out.append(written);
  const std::size_t after = written.find_first_of("0123456789", point);
  char number_text[kWrittenCapacity];
  TextOut plain(number_text);
  return plain.copy(slice(written, 0, point)) && plain.append('.') &&
         plain.append(slice(written, after)) && out.append(plain.view());
}

bool read_float(std::string_view text, double& number) {
  if (text.empty() || text.size() > kFloatTextLimit) return false;
  // Refuses the locale's own decimal point, which strtod would accept.
  if (text.find_first_not_of("-+.0123456789eE") != text.npos) return false;
  char local[kReadCapacity];
  TextOut out(local);
  const std::size_t point = text.find('.');
  if (!out.copy(slice(text, 0, point)) ||
      (point != text.npos &&
       (!out.append(std::localeconv()->decimal_point) || !out.append(slice(text, point + 1))))) {
    return false;
  }
  char* end = nullptr;
  number = std::strtod(local, &end);
  return end == local + out.length();
}

}  // namespace kova
