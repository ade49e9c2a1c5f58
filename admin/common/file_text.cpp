#include "admin/common/file_text.h"

#include <fmt/format.h>

#include "admin/common/refusal.h"
#include "platform/console.h"
#include "platform/file.h"

namespace kova::admin {

SecretText read_file(const std::string& path, std::size_t limit) {
  InputFile file;
  if (path.find('\0') != std::string::npos || !file.open(path.c_str())) {
    throw Refusal(path + ": the file cannot be opened");
  }
  const std::uint64_t size = file.size();
  if (size > limit) throw Refusal(fmt::format("{}: the file is larger than {} bytes", path, limit));
  SecretText text(static_cast<std::size_t>(size));
  if (size > 0 && !file.read(text.data(), text.view().size())) {
    throw Refusal(path + ": the file cannot be read");
  }
  return text;
}

void cut_line_end(SecretText& text) {
  std::string_view kept = text.view();
  if (!kept.ends_with('\n')) return;
  kept.remove_suffix(1);
  if (kept.ends_with('\r')) kept.remove_suffix(1);
  text.cut(kept.size());
}

SecretText read_standard_input(std::size_t limit) {
  SecretText text(limit + 1);
  std::size_t size = 0;
  while (size <= limit) {
    const std::size_t got = read_stdin(text.data() + size, limit + 1 - size);
    if (got == 0) break;
    size += got;
  }
  if (size > limit) throw Refusal(fmt::format("standard input has more than {} bytes", limit));
  text.cut(size);
  return text;
}

}  // namespace kova::admin
