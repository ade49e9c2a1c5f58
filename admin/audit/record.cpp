#include "admin/audit/record.h"

#include <charconv>
#include <cstring>
#include <iterator>
#include <optional>
#include <string>

#include "base/ascii.h"
#include "base/string_scan.h"

namespace kova::admin {

namespace {

constexpr std::size_t kTimeSize = 24;
constexpr std::size_t kDaySize = 10;
/// A token needs two bytes of its line, but for the first.
constexpr std::size_t kTokenCapacity = kAuditLineLimit / 2 + 2;

/// The members that are text, in the order of the server's own form, `timestamp` apart.
struct TextMember {
  std::string_view name;
  std::string_view AuditRecord::*field;
};
constexpr TextMember kTextMembers[] = {
    {"timestamp", &AuditRecord::timestamp},
    {"correlation_id", &AuditRecord::correlation_id},
    {"client_identity", &AuditRecord::client},
    {"database_identity", &AuditRecord::database},
    {"tool", &AuditRecord::tool},
    {"policy", &AuditRecord::policy},
    {"policy_decision", &AuditRecord::decision},
    {"objects", &AuditRecord::objects},
    {"status", &AuditRecord::status},
    {"error_class", &AuditRecord::error_class},
};
struct NumberMember {
  std::string_view name;
  std::uint64_t AuditRecord::*field;
};
constexpr NumberMember kNumberMembers[] = {
    {"duration_ms", &AuditRecord::duration_ms},
    {"rows", &AuditRecord::rows},
    {"bytes", &AuditRecord::bytes},
};
constexpr std::size_t kTexts = std::size(kTextMembers);
constexpr std::size_t kMembers = kTexts + std::size(kNumberMembers);
constexpr unsigned kAllMembers = (1U << kMembers) - 1U;

/// The index of the member that follows in the server's own form: the numbers come after `objects`.
constexpr std::size_t kFollowing[kMembers] = {1, 2, 3, 4, 5, 6, 7, 10, 9, 0, 11, 12, 8};

/// Walks a line in the server's own form. Each function is false when the line goes on otherwise.
class OwnForm {
 public:
  OwnForm(std::string_view line, char* decoded)
      : p_(line.data()), end_(line.data() + line.size()), decoded_(decoded) {}

  template <std::size_t kSize>
  [[nodiscard]] bool literal(const char (&text)[kSize]) {
    constexpr std::size_t kLength = kSize - 1;
    if (static_cast<std::size_t>(end_ - p_) < kLength || std::memcmp(p_, text, kLength) != 0) {
      return false;
    }
    p_ += kLength;
    return true;
  }

  /// Up to the closing quotation mark, which stays.
  [[nodiscard]] bool text(std::string_view& out) {
    const char* const start = p_;
    p_ = find_run_end<NonAscii::kStops>(p_, end_);
    if (p_ == end_) return false;
    if (*p_ != '"') return escaped_text(start, out);
    out = {start, static_cast<std::size_t>(p_ - start)};
    return true;
  }

  [[nodiscard]] bool number(std::uint64_t& out) {
    // Nineteen digits always fit.
    constexpr std::ptrdiff_t kDigitLimit = 19;
    const char* const start = p_;
    std::uint64_t value = 0;
    while (p_ != end_ && is_digit(*p_)) value = value * 10 + static_cast<unsigned>(*p_++ - '0');
    out = value;
    const std::ptrdiff_t digits = p_ - start;
    return digits > 0 && digits <= kDigitLimit && (digits == 1 || *start != '0');
  }

  /// One sign, with the blanks of JSON before it.
  [[nodiscard]] bool sign(char wanted) {
    skip_blanks();
    if (p_ == end_ || *p_ != wanted) return false;
    ++p_;
    return true;
  }
  void skip_blanks() {
    while (p_ != end_ && (*p_ == ' ' || *p_ == '\t' || *p_ == '\r')) ++p_;
  }

  [[nodiscard]] bool at_end() const { return p_ == end_; }

 private:
  // The two escapes that the server writes.
  [[nodiscard, gnu::noinline]] bool escaped_text(const char* start, std::string_view& out) {
    char* const begin = decoded_;
    for (;;) {
      const auto size = static_cast<std::size_t>(p_ - start);
      std::memcpy(decoded_, start, size);
      decoded_ += size;
      if (p_ == end_) return false;
      if (*p_ == '"') break;
      if (*p_ != '\\' || end_ - p_ < 2 || (p_[1] != '"' && p_[1] != '\\')) return false;
      *decoded_++ = p_[1];
      start = p_ + 2;
      p_ = find_run_end<NonAscii::kStops>(start, end_);
    }
    out = {begin, static_cast<std::size_t>(decoded_ - begin)};
    return true;
  }

  const char* p_;
  const char* end_;
  char* decoded_;
};

/// The index of a member's name among all, texts first, or kMembers. `expected` is tried first.
std::size_t member_of(std::string_view name, std::size_t expected) {
  const auto is_at = [&](std::size_t index) {
    return name ==
           (index < kTexts ? kTextMembers[index].name : kNumberMembers[index - kTexts].name);
  };
  if (is_at(expected)) return expected;
  std::size_t index = 0;
  while (index < kMembers && !is_at(index)) ++index;
  return index;
}

bool parse_number(std::string_view text, std::uint64_t& value) {
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  return error == std::errc() && end == text.data() + text.size();
}

/// The value of two digits, or -1.
int two_digits(const char* p) {
  return is_digit(p[0]) && is_digit(p[1]) ? (p[0] - '0') * 10 + (p[1] - '0') : -1;
}

}  // namespace

AuditRecordReader::AuditRecordReader() : tokens_(kTokenCapacity), decoded_(kAuditLineLimit) {}

bool AuditRecordReader::read(std::string_view line, AuditRecord& record) {
  if (line.ends_with('\r')) line.remove_suffix(1);
  if (line.size() > kAuditLineLimit) return false;
  return read_own_form(line, record) || read_flat_form(line, record) || read_document(line, record);
}

bool AuditRecordReader::read_own_form(std::string_view line, AuditRecord& record) {
  OwnForm form(line, decoded_.data());
  return form.literal("{\"timestamp\":\"") && form.text(record.timestamp) &&
         form.literal("\",\"correlation_id\":\"") && form.text(record.correlation_id) &&
         form.literal("\",\"client_identity\":\"") && form.text(record.client) &&
         form.literal("\",\"database_identity\":\"") && form.text(record.database) &&
         form.literal("\",\"tool\":\"") && form.text(record.tool) &&
         form.literal("\",\"policy\":\"") && form.text(record.policy) &&
         form.literal("\",\"policy_decision\":\"") && form.text(record.decision) &&
         form.literal("\",\"objects\":\"") && form.text(record.objects) &&
         form.literal("\",\"duration_ms\":") && form.number(record.duration_ms) &&
         form.literal(",\"rows\":") && form.number(record.rows) && form.literal(",\"bytes\":") &&
         form.number(record.bytes) && form.literal(",\"status\":\"") && form.text(record.status) &&
         form.literal("\",\"error_class\":\"") && form.text(record.error_class) &&
         form.literal("\"}") && form.at_end() && read_time(record.timestamp, record);
}

// As other programs write the same members. What has further members, other escapes or a character
// beyond ASCII is left to the document.
bool AuditRecordReader::read_flat_form(std::string_view line, AuditRecord& record) {
  OwnForm form(line, decoded_.data());
  if (!form.sign('{')) return false;
  unsigned seen = 0;
  std::size_t member = 0;
  do {
    std::string_view name;
    if (!form.sign('"') || !form.text(name) || !form.sign('"') || !form.sign(':')) return false;
    member = member_of(name, member);
    if (member == kMembers) return false;
    seen |= 1U << member;
    if (member < kTexts) {
      if (!form.sign('"') || !form.text(record.*kTextMembers[member].field) || !form.sign('"')) {
        return false;
      }
    } else {
      form.skip_blanks();
      if (!form.number(record.*kNumberMembers[member - kTexts].field)) return false;
    }
    member = kFollowing[member];
  } while (form.sign(','));
  if (!form.sign('}')) return false;
  form.skip_blanks();
  return form.at_end() && seen == kAllMembers && read_time(record.timestamp, record);
}

bool AuditRecordReader::read_document(std::string_view line, AuditRecord& record) {
  JsonDoc doc;
  if (!json_parse(line, tokens_.data(), static_cast<int>(tokens_.size()), doc)) return false;
  decoded_size_ = 0;
  unsigned seen = 0;
  JsonMembers members(doc, 0);
  for (const JsonMember member : members) {
    std::string_view name;
    // A name that is no text of Unicode is none of the record's.
    if (!read_text(doc, member.key, name)) continue;
    unsigned bit = 1;
    for (const TextMember& wanted : kTextMembers) {
      if (name == wanted.name) {
        if (!read_text(doc, member.value, record.*wanted.field)) return false;
        seen |= bit;
      }
      bit <<= 1U;
    }
    for (const NumberMember& wanted : kNumberMembers) {
      if (name == wanted.name) {
        if (!doc.is(member.value, JsonType::kPrimitive) ||
            !parse_number(doc.raw(member.value), record.*wanted.field)) {
          return false;
        }
        seen |= bit;
      }
      bit <<= 1U;
    }
  }
  return members.well_formed() && seen == kAllMembers && read_time(record.timestamp, record);
}

// The room suffices: what is decoded is no longer than its source.
bool AuditRecordReader::read_text(const JsonDoc& doc, int value, std::string_view& text) {
  if (!doc.is(value, JsonType::kString)) return false;
  text = doc.raw(value);
  if (text.find('\\') == text.npos) return true;
  char* const begin = decoded_.data() + decoded_size_;
  char* end = begin;
  if (!json_decode(text, end, decoded_.data() + decoded_.size())) return false;
  text = {begin, static_cast<std::size_t>(end - begin)};
  decoded_size_ += text.size();
  return true;
}

bool AuditRecordReader::read_time(std::string_view text, AuditRecord& record) {
  if (text.size() != kTimeSize) return false;
  const char* const p = text.data();
  if (std::memcmp(p, day_text_, kDaySize) != 0) {
    const std::optional<UnixMs> day =
        parse_time(std::string(text.substr(0, kDaySize)) + "T00:00:00.000Z");
    if (!day) return false;
    std::memcpy(day_text_, p, kDaySize);
    day_ = *day;
  }
  const int hour = two_digits(p + 11);
  const int minute = two_digits(p + 14);
  const int second = two_digits(p + 17);
  const int hundredths = two_digits(p + 20);
  if (p[10] != 'T' || p[13] != ':' || p[16] != ':' || p[19] != '.' || p[23] != 'Z' || hour < 0 ||
      hour > 23 || minute < 0 || minute > 59 || second < 0 || second > 59 || hundredths < 0 ||
      !is_digit(p[22])) {
    return false;
  }
  record.time = day_ + std::int64_t{1000} * ((hour * 60 + minute) * 60 + second) +
                std::int64_t{10} * hundredths + (p[22] - '0');
  return true;
}

}  // namespace kova::admin
