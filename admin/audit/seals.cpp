#include "admin/audit/seals.h"

#include <fmt/format.h>

#include <algorithm>
#include <charconv>
#include <iterator>

#include "admin/audit/audit_input.h"
#include "admin/audit/content_digests.h"
#include "admin/audit/lines.h"
#include "admin/audit/record.h"
#include "admin/common/json_output.h"
#include "admin/common/refusal.h"
#include "base/ascii.h"
#include "base/hex.h"
#include "base/text.h"
#include "json/json.h"
#include "platform/crypto.h"
#include "platform/shared_input.h"

namespace kova::admin {

namespace {

constexpr std::size_t kDigestDigits = 2 * kSha256Size;
constexpr std::size_t kReadSize = std::size_t{64} * 1024;
/// Bytes; room for kSealBlockLimit digests, their punctuation and a name.
constexpr std::size_t kSealLineLimit = std::size_t{16} * 1024 * 1024;
constexpr std::string_view kKeptWord = "kova-seal";

/// The earliest and the latest time of the records in a content.
class TimeRange {
 public:
  void add(std::string_view bytes) {
    splitter_.add(bytes, [this](std::string_view line) { take(line); });
  }
  void finish() {
    splitter_.finish([this](std::string_view line) { take(line); });
  }

  [[nodiscard]] std::optional<std::string> first() const { return text_of_time(first_); }
  [[nodiscard]] std::optional<std::string> last() const { return text_of_time(last_); }

 private:
  void take(std::string_view line) {
    AuditRecord record;
    if (!reader_.read(line, record)) return;
    first_ = std::min(first_.value_or(record.time), record.time);
    last_ = std::max(last_.value_or(record.time), record.time);
  }
  static std::optional<std::string> text_of_time(const std::optional<UnixMs>& time) {
    return time ? std::optional(time_text(*time)) : std::nullopt;
  }

  LineSplitter splitter_;
  AuditRecordReader reader_;
  std::optional<UnixMs> first_;
  std::optional<UnixMs> last_;
};

bool is_digest(const Json& value) {
  return value.is_string() && is_hex(value.get_ref<const std::string&>(), kDigestDigits);
}

bool is_digest_or_null(const Json& value) {
  return value.is_null() || is_digest(value);
}

bool is_time_or_null(const Json& value) {
  return value.is_null() || value.is_string();
}

constexpr const char* kSealMembers[] = {"file", "sha256", "lines",   "first",
                                        "last", "blocks", "previous"};

bool is_list_of_blocks(const Json& blocks, std::uint64_t lines) {
  return blocks.is_array() && std::all_of(blocks.begin(), blocks.end(), is_digest) &&
         blocks.size() == lines / kSealBlockLines + (lines % kSealBlockLines != 0 ? 1 : 0);
}

bool has_members(const Json& line) {
  return line.is_object() && std::all_of(std::begin(kSealMembers), std::end(kSealMembers),
                                         [&](const char* name) { return line.contains(name); });
}

/// The first member whose value is not that of a seal, or null.
const char* wrong_member(const Json& line) {
  if (!line["file"].is_string()) return "file";
  if (!is_digest(line["sha256"])) return "sha256";
  if (!line["lines"].is_number_unsigned()) return "lines";
  if (!is_time_or_null(line["first"])) return "first";
  if (!is_time_or_null(line["last"])) return "last";
  if (!is_list_of_blocks(line["blocks"], line["lines"].get<std::uint64_t>())) return "blocks";
  return is_digest_or_null(line["previous"]) ? nullptr : "previous";
}

/// The column of a member's name: the last one's, whose value counts.
std::size_t column_of(std::string_view line, std::string_view name) {
  std::vector<JsonToken> tokens(line.size() / 2 + 2);
  JsonDoc doc;
  if (!json_parse(line, tokens.data(), static_cast<int>(tokens.size()), doc)) return 1;
  std::size_t column = 1;
  JsonMembers members(doc, 0);
  for (const JsonMember member : members) {
    char key[16];
    if (json_get_string(doc, member.key, key) && name == key) {
      column = static_cast<std::size_t>(doc[member.key].start);
    }
  }
  return column;
}

/// The column of the place where a line stops being a seal, 0 for a seal; sets `json` to the line.
std::size_t wrong_column(std::string_view line, Json& json) {
  try {
    json = Json::parse(line);
  } catch (const Json::parse_error& error) {
    return std::max<std::size_t>(error.byte, 1);
  }
  if (!has_members(json)) return 1;
  const char* const wrong = wrong_member(json);
  return wrong != nullptr ? column_of(line, wrong) : 0;
}

std::optional<std::string> optional_text(const Json& value) {
  return value.is_string() ? std::optional(value.get<std::string>()) : std::nullopt;
}

std::string_view trimmed(std::string_view text) {
  while (!text.empty() && is_space(text.front())) text.remove_prefix(1);
  while (!text.empty() && is_space(text.back())) text.remove_suffix(1);
  return text;
}

}  // namespace

Seal seal_file(const std::string& name, Progress& progress) {
  ContentDigests digests;
  TimeRange times;
  static_cast<void>(read_whole_audit_file(
      name,
      [&](std::string_view bytes) {
        digests.add(bytes);
        if (digests.blocks().size() > kSealBlockLimit) {
          throw Refusal(name + ": the file has too many lines to be sealed");
        }
        times.add(bytes);
      },
      progress));
  digests.finish();
  times.finish();
  return {.file = name,
          .sha256 = digests.whole(),
          .lines = digests.lines(),
          .first = times.first(),
          .last = times.last(),
          .blocks = digests.blocks(),
          .previous = {}};
}

std::string seal_line(const Seal& seal) {
  return json_line({{"file", seal.file},
                    {"sha256", seal.sha256},
                    {"lines", seal.lines},
                    {"first", text_or_null(seal.first)},
                    {"last", text_or_null(seal.last)},
                    {"blocks", Json(seal.blocks)},
                    {"previous", text_or_null(seal.previous)}});
}

std::optional<Seal> parse_seal(std::string_view line, std::size_t* column) {
  Json json;
  const std::size_t wrong = wrong_column(line, json);
  if (column != nullptr) *column = wrong;
  if (wrong != 0) return std::nullopt;
  return Seal{.file = json["file"].get<std::string>(),
              .sha256 = json["sha256"].get<std::string>(),
              .lines = json["lines"].get<std::uint64_t>(),
              .first = optional_text(json["first"]),
              .last = optional_text(json["last"]),
              .blocks = json["blocks"].get<std::vector<std::string>>(),
              .previous = optional_text(json["previous"])};
}

std::optional<Seal> parse_seal(const SealsLine& line, std::size_t& column) {
  std::optional<Seal> seal = parse_seal(line.text, &column);
  if (!seal || line.has_end) return seal;
  column = line.text.size() + 1;
  return std::nullopt;
}

std::string no_seal_text(const std::string& path, std::uint64_t line, std::size_t column) {
  return fmt::format("{}: line {}, column {}: the line is no seal", path, line, column);
}

std::string line_digest(std::string_view line) {
  std::uint8_t digest[kSha256Size];
  char text[kDigestDigits + 1];
  if (!sha256_digest(line, digest)) throw Refusal("the system has no SHA-256 to give");
  write_hex(digest, text);
  return text;
}

std::string kept_text(const KeptLine& kept) {
  return fmt::format("{} {} {}", kKeptWord, kept.number, kept.digest);
}

std::optional<KeptLine> parse_kept(std::string_view text) {
  text = trimmed(text);
  if (!text.starts_with(kKeptWord)) return std::nullopt;
  text = trimmed(text.substr(kKeptWord.size()));
  KeptLine kept{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), kept.number);
  if (error != std::errc() || kept.number == 0) return std::nullopt;
  kept.digest = trimmed(text.substr(static_cast<std::size_t>(end - text.data())));
  std::transform(kept.digest.begin(), kept.digest.end(), kept.digest.begin(), to_lower);
  return is_hex(kept.digest, kDigestDigits) ? std::optional(kept) : std::nullopt;
}

std::uint64_t read_seals(const std::string& path,
                         const std::function<void(const SealsLine&)>& take) {
  SharedInput file;
  if (path.find('\0') != std::string::npos || !file.open(path.c_str())) {
    throw Refusal(path + ": the file cannot be read");
  }
  std::vector<char> block(kReadSize);
  std::string line;
  std::uint64_t size = 0;
  std::uint64_t number = 1;
  for (std::size_t got = 1; got > 0; size += got) {
    if (!file.read(block.data(), block.size(), got)) {
      throw Refusal(path + ": the file cannot be read");
    }
    std::string_view left(block.data(), got);
    for (std::size_t end = 0; (end = left.find('\n')) != left.npos; left.remove_prefix(end + 1)) {
      line += left.substr(0, end);
      take({.number = number++, .text = line, .has_end = true});
      line.clear();
    }
    line += left;
    if (line.size() > kSealLineLimit) {
      throw Refusal(fmt::format("{}: line {}, column {}: the line is too long", path, number,
                                kSealLineLimit + 1));
    }
  }
  if (!line.empty()) take({.number = number, .text = line, .has_end = false});
  return size;
}

std::vector<LineRange> broken_ranges(const Seal& seal, const std::string& path,
                                     Progress& progress) {
  ContentDigests digests(seal.lines);
  // Of a compressed file that is broken the part before counts.
  static_cast<void>(read_audit_file(
      path, [&](std::string_view bytes) { digests.add(bytes); }, progress));
  digests.finish();
  std::vector<LineRange> ranges;
  for (std::uint64_t first = 1; first <= seal.lines; first += kSealBlockLines) {
    const auto block = static_cast<std::size_t>((first - 1) / kSealBlockLines);
    const bool holds = block < digests.blocks().size() && block < seal.blocks.size() &&
                       digests.blocks()[block] == seal.blocks[block];
    if (!holds) {
      ranges.push_back({first, std::min(first + kSealBlockLines - 1, seal.lines)});
    }
  }
  if (digests.lines() > seal.lines) ranges.push_back({seal.lines + 1, digests.lines()});
  if (ranges.empty() && digests.whole() != seal.sha256) {
    ranges.push_back({std::min<std::uint64_t>(seal.lines, 1), seal.lines});
  }
  return ranges;
}

}  // namespace kova::admin
