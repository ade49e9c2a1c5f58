#include "engine/vector.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>

namespace kova::sample {

// In double precision, which holds the square of every float.
bool normalise(Vector& vector) {
  double square = 0;
  for (const float element : vector) square += static_cast<double>(element) * element;
  if (square <= 0) return false;
  const double factor = 1 / std::sqrt(square);
  for (float& element : vector) element = static_cast<float>(element * factor);
  return true;
}

std::string_view vector_bytes(const Vector& vector) {
  return {reinterpret_cast<const char*>(vector.data()), sizeof vector};
}

bool read_vector(std::string_view bytes, Vector& vector) {
  if (bytes.size() != sizeof vector) return false;
  std::memcpy(vector.data(), bytes.data(), sizeof vector);
  return true;
}

std::string vector_text(const Vector& vector) {
  std::string text = "[";
  for (const float element : vector) {
    char digits[32];
    const auto end = std::to_chars(std::begin(digits), std::end(digits), element).ptr;
    if (text.size() > 1) text += ',';
    text.append(digits, end);
  }
  return text + "]";
}

}  // namespace kova::sample
