// Pages of memory from the operating system.
#pragma once

#include <cstddef>

namespace kova::testing {

[[nodiscard]] std::size_t page_size();
/// Maps zeroed, writable pages; ends the program when there are none.
[[nodiscard]] char* map_pages(std::size_t size);
/// Makes mapped pages unreadable and unwritable.
void forbid_pages(char* start, std::size_t size);
void unmap_pages(char* start, std::size_t size);

}  // namespace kova::testing
