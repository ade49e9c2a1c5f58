// Memory for something that is nearly always small and may be large.
#pragma once

#include <cstddef>

namespace kova {

/// Zeroed memory from a page's beginning on. The system gives a page when it is first touched, so
/// that what is not used costs nothing.
class LargeBlock {
 public:
  /// Check `operator bool` afterwards: there may be no memory.
  explicit LargeBlock(std::size_t size) : LargeBlock(size, size) {}
  ~LargeBlock() { reset(); }
  LargeBlock(const LargeBlock&) = delete;
  LargeBlock& operator=(const LargeBlock&) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  [[nodiscard]] char* data() const { return data_; }
  /// Moves the block, of which the first `used` bytes are kept, so that what is behind them comes
  /// to lie in one large page: much faster to fill, and held as a whole. Takes some 50
  /// microseconds. Nothing happens without memory for that, or where large pages need a privilege
  /// (Windows).
  void move_to_large_page(std::size_t used);
  /// Frees the memory before the end of the scope.
  void reset();

 private:
  LargeBlock(std::size_t size, std::size_t mapping_size);

  char* data_ = nullptr;
  std::size_t size_ = 0;
  /// What the system gave, of which the block is a part.
  void* mapping_ = nullptr;
  std::size_t mapping_size_ = 0;
};

}  // namespace kova
