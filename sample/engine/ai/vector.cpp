#include "engine/ai/vector.h"

#include <charconv>
#include <cmath>
#include <cstring>
#include <iterator>

namespace kova::sample {

namespace {

constexpr std::size_t kLanes = 16;
static_assert(kDimension % kLanes == 0);

std::string_view bytes_of(sqlite3_value* argument) {
  const void* bytes = sqlite3_value_blob(argument);
  if (bytes == nullptr) return {};
  return {static_cast<const char*>(bytes), static_cast<std::size_t>(sqlite3_value_bytes(argument))};
}

// Sixteen sums side by side: within one sum the compiler may not reorder the additions. The bytes
// need not be aligned.
float dot_product_of_bytes(const char* a, const char* b) {
  float sums[kLanes] = {};
  for (std::size_t i = 0; i < kDimension; i += kLanes) {
    float left[kLanes];
    float right[kLanes];
    std::memcpy(left, a + i * sizeof(float), sizeof left);
    std::memcpy(right, b + i * sizeof(float), sizeof right);
    for (std::size_t lane = 0; lane < kLanes; ++lane) sums[lane] += left[lane] * right[lane];
  }
  float sum = 0;
  for (const float lane : sums) sum += lane;
  return sum;
}

void run_vector_text(sqlite3_context* context, int /*count*/, sqlite3_value** arguments) {
  Vector vector;
  if (!read_vector(bytes_of(arguments[0]), vector)) return;
  const std::string text = vector_text(vector);
  sqlite3_result_text64(context, text.data(), text.size(), SQLITE_TRANSIENT, SQLITE_UTF8);
}

void run_vector_score(sqlite3_context* context, int /*count*/, sqlite3_value** arguments) {
  const std::string_view a = bytes_of(arguments[0]);
  const std::string_view b = bytes_of(arguments[1]);
  if (a.size() != sizeof(Vector) || b.size() != sizeof(Vector)) return;
  sqlite3_result_double(context, static_cast<double>(dot_product_of_bytes(a.data(), b.data())));
}

}  // namespace

// In double precision, which holds the square of every float.
bool normalise(Vector& vector) {
  double square = 0;
  for (const float element : vector) square += static_cast<double>(element) * element;
  if (square <= 0) return false;
  const double factor = 1 / std::sqrt(square);
  for (float& element : vector) element = static_cast<float>(element * factor);
  return true;
}

float dot_product(const Vector& a, const Vector& b) {
  return dot_product_of_bytes(vector_bytes(a).data(), vector_bytes(b).data());
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

bool add_vector_functions(sqlite3* database) {
  // Innocuous: views of a database that is not trusted may call them.
  constexpr int kFlags = SQLITE_UTF8 | SQLITE_DETERMINISTIC | SQLITE_INNOCUOUS;
  const auto add = [database](const char* name, int arguments, auto* function) {
    return sqlite3_create_function_v2(database, name, arguments, kFlags, nullptr, function, nullptr,
                                      nullptr, nullptr) == SQLITE_OK;
  };
  return add("vector_text", 1, run_vector_text) && add("vector_score", 2, run_vector_score);
}

}  // namespace kova::sample
