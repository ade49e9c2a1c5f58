// ZIP archives whose bytes depend on nothing but what is put in (PKWARE's APPNOTE 6.3.3, without
// ZIP64 and encryption).
#pragma once

#include <span>
#include <string>
#include <string_view>

namespace kova::admin {

struct ZipEntry {
  std::string name;  ///< ASCII, with "/" between its parts
  std::string_view bytes;
  bool executable = false;  ///< mode 0755, otherwise 0644
};

/// The archive of the entries in this order, deflated, each dated 1980-01-01. All together are
/// smaller than 4 GiB and fewer than 65,536. Throws Refusal without memory to compress with.
[[nodiscard]] std::string zip_archive(std::span<const ZipEntry> entries);

}  // namespace kova::admin
