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

}  // namespace

RowBlock::RowBlock(wire::FrameWriter& frame) : frame_(frame), start_(frame.payload_size()) {
  frame_.u16(rows_);
}

void RowBlock::fill(Query& query) {
  const std::uint64_t until = tick_ms() + kBlockMs;
  while (query.is_open()) {
    more_ = rows_ == kBlockRows || frame_.payload_size() - start_ >= kBlockBytes ||
            (rows_ > 0 && tick_ms() >= until);
    if (more_) return;
    if (!query.step()) return query.close();
    add_row(query);
  }
}

void RowBlock::add_row(const Query& query) {
  const std::size_t before = frame_.payload_size();
  for (int column = 0; column < query.columns(); ++column) {
    const std::string_view cell = query.cell(column);
    if (frame_.payload_size() + cell.size() + 8 > kRowsLimit) {
      frame_.shrink(before);
      throw Failure("a row is too large");
    }
    if (cell.data() == nullptr) {
      frame_.null_text();
    } else {
      frame_.text(cell);
    }
  }
  ++rows_;
}

void RowBlock::finish(std::string_view message) {
  wire::RowsEnd end = more_ ? wire::RowsEnd::kMore : wire::RowsEnd::kEnd;
  if (!message.empty()) end = wire::RowsEnd::kFailed;
  frame_.set_u16(start_, rows_);
  frame_.u8(static_cast<std::uint8_t>(end));
  frame_.text(message);
}

}  // namespace kova::sample
