#include "support/guard_page.h"

#include <cstring>

#include "support/memory_pages.h"

namespace kova::testing {
namespace {

// One unreadable page on either side of as many pages as the size needs, at least one.
std::size_t mapped_size(std::size_t size) {
  const std::size_t page = page_size();
  const std::size_t pages = size == 0 ? 1 : (size + page - 1) / page;
  return (pages + 2) * page;
}

char* map_between_guards(std::size_t mapped) {
  const std::size_t page = page_size();
  char* block = map_pages(mapped);
  forbid_pages(block, page);
  forbid_pages(block + mapped - page, page);
  return block;
}

char* flush_with_end(char* block, std::size_t mapped, std::size_t size) {
  return block + mapped - page_size() - size;
}

}  // namespace

GuardedText::GuardedText(std::string_view text, GuardSide side)
    : size_(text.size()),
      mapped_(mapped_size(size_)),
      block_(map_between_guards(mapped_)),
      data_(side == GuardSide::kAfter ? flush_with_end(block_, mapped_, size_)
                                      : block_ + page_size()) {
  if (!text.empty()) std::memcpy(data_, text.data(), text.size());
}

GuardedText::~GuardedText() {
  unmap_pages(block_, mapped_);
}

GuardedBuffer::GuardedBuffer(std::size_t size)
    : size_(size),
      mapped_(mapped_size(size)),
      block_(map_between_guards(mapped_)),
      data_(flush_with_end(block_, mapped_, size)) {}

GuardedBuffer::~GuardedBuffer() {
  unmap_pages(block_, mapped_);
}

}  // namespace kova::testing
