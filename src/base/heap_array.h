// A block of heap memory that may be missing.
#pragma once

#include <cstddef>
#include <cstdlib>
#include <utility>

namespace kova {

/// Room for a number of plain elements on the C heap, not initialised; freed at destruction.
template <typename T>
class HeapArray {
 public:
  /// Check `operator bool` afterwards: there may be no memory.
  explicit HeapArray(std::size_t capacity)
      : data_(static_cast<T*>(std::malloc(capacity * sizeof(T)))), capacity_(capacity) {}
  ~HeapArray() { reset(); }
  HeapArray(const HeapArray&) = delete;
  HeapArray& operator=(const HeapArray&) = delete;

  explicit operator bool() const { return data_ != nullptr; }
  [[nodiscard]] T* data() const { return data_; }
  /// In elements.
  [[nodiscard]] std::size_t capacity() const { return capacity_; }
  /// Frees the memory before the end of the scope.
  void reset() { std::free(release()); }
  /// Hands the memory over, to be freed with `free`.
  [[nodiscard]] T* release() { return std::exchange(data_, nullptr); }

 private:
  T* data_;
  std::size_t capacity_;
};

}  // namespace kova
