#include "platform/large_block.h"

#include <sys/mman.h>

#include <algorithm>
#include <cstdint>
#include <utility>

namespace kova {

namespace {

constexpr std::size_t kPage = 4096;
constexpr std::size_t kLargePage = 2UL * 1024 * 1024;

std::size_t rounded_up(std::size_t size, std::size_t step) {
  return (size + step - 1) / step * step;
}

}  // namespace

LargeBlock::LargeBlock(std::size_t size, std::size_t mapping_size) : size_(size) {
  void* const mapping =
      ::mmap(nullptr, mapping_size, PROT_READ | PROT_WRITE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (mapping == MAP_FAILED) return;
  mapping_ = mapping;
  mapping_size_ = mapping_size;
  data_ = static_cast<char*>(mapping);
}

// The system gives large pages only where they lie whole in a mapping and at a multiple of their
// size.
//
//     | unused | used | the rest: whole large pages | unused |
//                     ^ a multiple of kLargePage
void LargeBlock::move_to_large_page(std::size_t used) {
  const std::size_t head = rounded_up(used, kPage);
  if (data_ == nullptr || head >= size_) return;
  const std::size_t rest = rounded_up(size_ - head, kLargePage);
  LargeBlock moved(size_, head + rest + kLargePage);
  if (!moved) return;
  const std::uintptr_t above_head = reinterpret_cast<std::uintptr_t>(moved.data_) + head;
  moved.data_ += (kLargePage - above_head % kLargePage) % kLargePage;
  ::madvise(moved.data_ + head, rest, MADV_HUGEPAGE);
  std::copy_n(data_, used, moved.data_);
  std::swap(data_, moved.data_);
  std::swap(mapping_, moved.mapping_);
  std::swap(mapping_size_, moved.mapping_size_);
}

void LargeBlock::reset() {
  if (mapping_ != nullptr) ::munmap(mapping_, mapping_size_);
  mapping_ = nullptr;
  data_ = nullptr;
}

}  // namespace kova
