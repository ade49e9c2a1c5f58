#include "admin/approve/page.h"

#include <fmt/format.h>

#include <algorithm>
#include <iterator>

#include "admin/approve/statement_rows.h"
#include "admin/common/output.h"
#include "admin/common/printable.h"
#include "policy/policy.h"

namespace kova::admin {

namespace {

/// Columns of "12345:12345 | ", which stands before each row of a statement. No row of a
/// statement can be taken for another line of the page.
constexpr std::size_t kMarginColumns = 14;
constexpr std::size_t kRowMinimum = 20;
/// Characters of the statement that a warning shows.
constexpr std::size_t kExcerptColumns = 40;

class Page {
 public:
  Page(const Review& review, const PageStyle& style) : review_(review), style_(style) {}

  [[nodiscard]] std::string compose(UnixMs now) {
    head();
    const std::string_view canonical(review_.write->canonical);
    if (review_.spelling != canonical) {
      title("The statement as the client wrote it (not what is signed)");
      rows(review_.spelling);
    }
    title("The canonical statement: every byte that the digest covers");
    rows(canonical);
    text_ += '\n';
    line("digest", review_.write->digest);
    lifetime(now);
    warnings();
    return std::move(text_);
  }

 private:
  void line(std::string_view name, std::string_view value) {
    text_ += fmt::format("{:<10} {}\n", name, printable(value));
  }

  void title(std::string_view text) {
    text_ += '\n';
    text_ += in(Colour::kBold, text) + '\n';
  }

  [[nodiscard]] std::string in(Colour colour, std::string_view text) const {
    if (!style_.colour) return std::string(text);
    return fmt::format("{}{}{}", colour_code(colour), text, colour_code(Colour::kNone));
  }

  void head() {
    const McpPolicy& policy = *review_.policy;
    line("policy", policy.name);
    line("  file", review_.policy_file);
    line("  SHA-256", review_.policy_digest);
    line("client", policy.client_id);
    line("database", policy.database);
    line("type", review_.write->type);
    line("table", review_.write->table);
  }

  void rows(std::string_view statement) {
    const std::size_t columns = style_.columns > kMarginColumns + kRowMinimum
                                    ? style_.columns - kMarginColumns
                                    : kScreenColumns;
    for (const StatementRow& row : statement_rows(statement, columns)) {
      text_ += fmt::format("{:>5}:{:<5} | {}\n", row.place.line, row.place.column, row.shown);
    }
  }

  void lifetime(UnixMs now) {
    const std::uint32_t seconds = review_.policy->approval_ttl_seconds;
    line("token", fmt::format("{} seconds from the confirmation ({} if now)", seconds,
                              time_text(now + std::int64_t{1000} * seconds)));
  }

  void warnings() {
    if (review_.warnings.empty()) {
      line("warnings", "none");
      return;
    }
    title(fmt::format("Warnings: {}", review_.warnings.size()));
    for (const Warning& warning : review_.warnings) text_ += warning_line(warning);
  }

  [[nodiscard]] std::string warning_line(const Warning& warning) const {
    const std::string_view canonical(review_.write->canonical);
    const Place place = place_of(canonical, warning.index);
    const std::string excerpt =
        statement_rows(canonical.substr(warning.index), kExcerptColumns).front().shown;
    const std::string more =
        warning.places > 1 ? fmt::format(" ({} places)", warning.places) : std::string();
    return fmt::format("{} {} at {}:{}{}: {}: {}\n", in(Colour::kYellow, "warning"), warning.name,
                       place.line, place.column, more, warning.meaning, excerpt);
  }

  const Review& review_;
  PageStyle style_;
  std::string text_;
};

}  // namespace

std::string review_page(const Review& review, UnixMs now, const PageStyle& style) {
  return Page(review, style).compose(now);
}

}  // namespace kova::admin
