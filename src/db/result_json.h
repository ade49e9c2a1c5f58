// The JSON text of a statement's result.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "base/text.h"
#include "db/client_library.h"
#include "db/out_buf.h"

namespace kova {

inline constexpr unsigned kColumnLimit = 64;
/// The bytes of one cell; of a status text or column name, the bytes that are written.
inline constexpr std::size_t kCellLimit = 16384;

/// Reads the current result of a statement object into `out`:
/// {"status":...,"columns":[...],"rows":[[...]],"rowCount":...,"truncated":...}, where every value
/// is a string and "truncated" means that `max_rows` rows were written. False leaves the message of
/// the limit that was exceeded.
[[nodiscard]] bool compose_result_json(const ClientLibrary& library, void* object,
                                       std::uint32_t max_rows, OutBuf& out,
                                       std::uint32_t& row_count, TextOut message);

}  // namespace kova
