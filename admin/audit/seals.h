// Seals: what a file of the audit log was when it was rotated, chained line by line.
//
// A file of seals is JSON Lines with LF. Each line seals one file:
//   {"file","sha256","lines","first","last","blocks":[...],"previous"}
// `sha256` is that of the uncompressed content, `blocks` are those of each kSealBlockLines lines of
// it with their ends (the last block may have fewer), `first` and `last` the earliest and latest
// time of its records or null, `previous` the SHA-256 of the line before without its LF, null in
// the first line. A change of any line therefore shows in the one after it.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "admin/audit/content_digests.h"
#include "admin/audit/progress.h"

namespace kova::admin {

/// Blocks of a sealed file: 200 million lines.
inline constexpr std::size_t kSealBlockLimit = 200000;

struct Seal {
  std::string file;  ///< the name under which it was sealed
  std::string sha256;
  std::uint64_t lines = 0;
  std::optional<std::string> first;
  std::optional<std::string> last;
  std::vector<std::string> blocks;
  std::optional<std::string> previous;
};

/// Reads a file and seals its content; `previous` stays empty. Throws Refusal.
[[nodiscard]] Seal seal_file(const std::string& name, Progress& progress);

/// The line of a seal without its LF.
[[nodiscard]] std::string seal_line(const Seal& seal);

/// Nothing for a line that is no seal. `column` is then where it stops being one, in bytes from 1:
/// where it is no JSON, the name of the member whose value is wrong, or 1 where a member is
/// missing.
[[nodiscard]] std::optional<Seal> parse_seal(std::string_view line, std::size_t* column = nullptr);

/// The SHA-256 of a line as lower-case hexadecimal text. Throws Refusal when there is no digest.
[[nodiscard]] std::string line_digest(std::string_view line);

/// What is kept elsewhere: the number of a line of the seals and its digest. Since every line has
/// the digest of the one before, it speaks for all lines up to it.
struct KeptLine {
  std::uint64_t number;
  std::string digest;
};
[[nodiscard]] std::string kept_text(const KeptLine& kept);
/// Blanks around it do not count. Nothing for a malformed text.
[[nodiscard]] std::optional<KeptLine> parse_kept(std::string_view text);

/// One line of a file of seals, as it lies.
struct SealsLine {
  std::uint64_t number;
  std::string_view text;
  bool has_end;
};

/// The same for a line of a file; one without its end is no seal either.
[[nodiscard]] std::optional<Seal> parse_seal(const SealsLine& line, std::size_t& column);

/// "PATH: line N, column C: the line is no seal".
[[nodiscard]] std::string no_seal_text(const std::string& path, std::uint64_t line,
                                       std::size_t column);

/// Gives each line of a file of seals. Returns the file's size in bytes. Throws Refusal when it
/// cannot be read.
std::uint64_t read_seals(const std::string& path,
                         const std::function<void(const SealsLine&)>& take);

/// Lines of a file that are not what was sealed.
struct LineRange {
  std::uint64_t first;
  std::uint64_t last;
};

/// Compares a file with its seal, block by block: each range is a block that differs or is gone, or
/// the lines that came after the sealed ones. Throws Refusal when the file cannot be read.
[[nodiscard]] std::vector<LineRange> broken_ranges(const Seal& seal, const std::string& path,
                                                   Progress& progress);

}  // namespace kova::admin
