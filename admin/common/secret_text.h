// Text that is overwritten when it is no longer needed.
#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

namespace kova::admin {

/// NUL-terminated text in memory of its own that is wiped at destruction. Movable only.
class SecretText {
 public:
  SecretText() = default;
  explicit SecretText(std::string_view text);
  /// `capacity` zeros, to be filled through `data` and then cut to what was written.
  explicit SecretText(std::size_t capacity);
  ~SecretText();
  SecretText(SecretText&& other) noexcept;
  SecretText& operator=(SecretText&& other) noexcept;
  SecretText(const SecretText&) = delete;
  SecretText& operator=(const SecretText&) = delete;

  [[nodiscard]] char* data() { return data_.get(); }
  [[nodiscard]] const char* c_str() const { return data_ ? data_.get() : ""; }
  [[nodiscard]] std::string_view view() const { return {c_str(), size_}; }
  /// Keeps the first `size` bytes, at most what there is.
  void cut(std::size_t size);
  /// Adds one byte within the capacity.
  void add(char byte);

 private:
  void wipe_all();

  std::unique_ptr<char[]> data_;
  std::size_t size_ = 0;
  std::size_t capacity_ = 0;
};

}  // namespace kova::admin
