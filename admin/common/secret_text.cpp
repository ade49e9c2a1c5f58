#include "admin/common/secret_text.h"

#include <algorithm>
#include <stdexcept>
#include <utility>

#include "base/secret.h"

namespace kova::admin {

SecretText::SecretText(std::string_view text) : SecretText(text.size()) {
  std::copy(text.begin(), text.end(), data_.get());
}

SecretText::SecretText(std::size_t capacity)
    : data_(std::make_unique<char[]>(capacity + 1)), size_(capacity), capacity_(capacity) {}

SecretText::~SecretText() {
  wipe_all();
}

SecretText::SecretText(SecretText&& other) noexcept
    : data_(std::move(other.data_)),
      size_(std::exchange(other.size_, 0)),
      capacity_(std::exchange(other.capacity_, 0)) {}

SecretText& SecretText::operator=(SecretText&& other) noexcept {
  std::swap(data_, other.data_);
  std::swap(size_, other.size_);
  std::swap(capacity_, other.capacity_);
  return *this;
}

void SecretText::cut(std::size_t size) {
  if (size >= size_) return;
  wipe(data_.get() + size, size_ - size);
  size_ = size;
}

void SecretText::add(char byte) {
  if (size_ == capacity_) throw std::length_error("secret text is full");
  data_[size_++] = byte;
}

void SecretText::wipe_all() {
  if (data_) wipe(data_.get(), capacity_);
}

}  // namespace kova::admin
