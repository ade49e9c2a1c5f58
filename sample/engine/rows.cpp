#include <string>
#include <string_view>

#include "engine/rows.h"

#include "platform/clock.h"

namespace kova::sample {

namespace {

constexpr std::uint16_t kBlockRows = 128;
constexpr std::size_t kBlockBytes = std::size_t{256} << 10;
constexpr std::uint64_t kBlockMs = 50;
// Leaves room in a frame for what stands behind the rows.
constexpr std::size_t kRowsLimit = wire::kReplyLimit - (std::size_t{64} << 10);

bool append_row(const Query& query, wire::FrameWriter& frame) {
  for (int column = 0; column < query.columns(); ++column) {
    const std::string_view cell = query.cell(column);
    if (frame.payload_size() + cell.size() + 8 > kRowsLimit) return false;
    if (cell.data() == nullptr) {
      frame.null_text();
    } else {
      frame.text(cell);
    }
  }
  return true;
}

wire::RowsEnd collect_rows(Query& query, wire::FrameWriter& frame, std::uint16_t& rows,
                           std::string& error) {
  const std::size_t start = frame.payload_size();
  const std::uint64_t until = tick_ms() + kBlockMs;
  while (rows < kBlockRows && frame.payload_size() - start < kBlockBytes) {
    if (rows > 0 && tick_ms() >= until) break;
    switch (query.step()) {
      case Query::Step::kEnd:
        return wire::RowsEnd::kEnd;
      case Query::Step::kFailed:
        error = query.store().error();
        return wire::RowsEnd::kFailed;
      case Query::Step::kRow:
        break;
    }
    const std::size_t before = frame.payload_size();
    if (!append_row(query, frame)) {
      frame.shrink(before);
      error = "a row is too large";
      return wire::RowsEnd::kFailed;
    }
    ++rows;
  }
  return wire::RowsEnd::kMore;
}

}  // namespace

bool append_rows(Query& query, wire::FrameWriter& frame, std::string& error) {
  error.clear();
  std::uint16_t rows = 0;
  const std::size_t count_at = frame.payload_size();
  frame.u16(rows);
  const wire::RowsEnd end =
      query.is_open() ? collect_rows(query, frame, rows, error) : wire::RowsEnd::kEnd;
  if (end != wire::RowsEnd::kMore) query.close();
  frame.set_u16(count_at, rows);
  frame.u8(static_cast<std::uint8_t>(end));
  frame.text(error);
  return end != wire::RowsEnd::kFailed;
}

}  // namespace kova::sample
