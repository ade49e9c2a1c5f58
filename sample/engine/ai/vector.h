// An embedding's vector, in memory, in a database and in a statement's text.
#pragma once

#include <sqlite3.h>

#include <array>
#include <cstddef>
#include <string>
#include <string_view>

namespace kova::sample {

inline constexpr std::size_t kDimension = 256;

using Vector = std::array<float, kDimension>;

/// Makes the vector's length 1; false when it is zero.
bool normalise(Vector& vector);

[[nodiscard]] float dot_product(const Vector& a, const Vector& b);

/// The bytes that a database holds: the elements as 32-bit floats in the machine's order.
[[nodiscard]] std::string_view vector_bytes(const Vector& vector);
/// False when the bytes are not those of a vector.
[[nodiscard]] bool read_vector(std::string_view bytes, Vector& vector);

/// The form for clients: "[0.25,-0.5,...]", each element with the fewest digits that name it.
[[nodiscard]] std::string vector_text(const Vector& vector);

/// Adds to SQL vector_text(blob), and vector_score(blob, blob), the cosine similarity of two
/// vectors of length 1; both are null for what is no vector.
[[nodiscard]] bool add_vector_functions(sqlite3* database);

}  // namespace kova::sample
