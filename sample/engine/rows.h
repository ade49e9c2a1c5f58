// Blocks of a result's rows.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

#include "engine/store.h"
#include "wire/wire.h"

namespace kova::sample {

/// The rows at the end of a frame, in the form that README.md of the wire format describes.
class RowBlock {
 public:
  /// Begins the block in a frame.
  explicit RowBlock(wire::FrameWriter& frame);

  /// Adds the next rows of a result; a query that is not open has none. When it throws, the rows
  /// before the failure are in the block.
  void fill(Query& query);
  /// Ends the block: after a failure with its message, else with an empty one.
  void finish(std::string_view message);

 private:
  void add_row(const Query& query);

  wire::FrameWriter& frame_;
  std::size_t start_;
  std::uint16_t rows_ = 0;
  bool more_ = false;
};

}  // namespace kova::sample
