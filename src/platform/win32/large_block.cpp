#include "platform/large_block.h"

#include <windows.h>

namespace kova {

LargeBlock::LargeBlock(std::size_t size, std::size_t mapping_size)
    : size_(size),
      mapping_(::VirtualAlloc(nullptr, mapping_size, MEM_RESERVE | MEM_COMMIT, PAGE_READWRITE)),
      mapping_size_(mapping_size) {
  data_ = static_cast<char*>(mapping_);
}

void LargeBlock::move_to_large_page(std::size_t) {}

void LargeBlock::reset() {
  if (mapping_ != nullptr) ::VirtualFree(mapping_, 0, MEM_RELEASE);
  mapping_ = nullptr;
  data_ = nullptr;
}

}  // namespace kova
