#include "admin/audit/verify.h"

#include <fmt/format.h>

#include <filesystem>
#include <memory>
#include <optional>
#include <string>

#include "admin/audit/seals.h"
#include "admin/common/output.h"
#include "admin/common/paths.h"
#include "admin/common/printable.h"
#include "admin/common/refusal.h"

namespace kova::admin {

namespace {

struct VerifyOptions {
  std::string seals;
  std::optional<std::string> kept;
};

/// The file of a sealed name, or the same with ".gz" after it: where the name says, then in the
/// folder of the seals. Empty when there is none.
std::string find_file(const std::string& name, const std::string& seals) {
  // No file has such a name; the system would look for the one up to the NUL.
  if (name.find('\0') != name.npos) return {};
  const auto beside = path_of(seals).parent_path();
  const auto sealed = path_of(name);
  for (const auto& place : {sealed, beside / sealed, beside / sealed.filename()}) {
    for (const char* ending : {"", ".gz"}) {
      auto path = place;
      path += ending;
      std::error_code error;
      if (std::filesystem::is_regular_file(path, error)) {
        return text_of(path);
      }
    }
  }
  return {};
}

/// Judges line after line and prints what does not hold.
class Verifier {
 public:
  Verifier(const VerifyOptions& options, std::optional<KeptLine> kept)
      : seals_(options.seals), kept_(std::move(kept)) {}

  void take(const SealsLine& line) {
    lines_ = line.number;
    std::size_t column = 0;
    const std::optional<Seal> seal = parse_seal(line, column);
    if (!seal && line.number == 1) first_column_ = column;
    const std::string digest = line_digest(line.text);
    const bool follows = seal && seal->previous == previous_;
    const bool is_kept = !kept_ || kept_->number != line.number || kept_->digest == digest;
    if (!follows || !is_kept) break_at(line.number);
    previous_ = digest;
    if (!seal) return;
    ++count_;
    verify_file(*seal);
  }

  [[nodiscard]] int finish() {
    if (count_ == 0 && lines_ > 0) throw Refusal(no_seal_text(seals_, 1, first_column_));
    if (count_ == 0 && !kept_) throw Refusal(seals_ + ": there is no seal in it");
    // The kept digest is of a line that the file no longer has.
    if (kept_ && kept_->number > lines_) break_at(lines_ + 1);
    print(findings_);
    if (!findings_.empty()) return kExitFound;
    print(fmt::format("{} {}\n", count_, count_ == 1 ? "seal holds" : "seals hold"));
    return kExitFine;
  }

 private:
  void break_at(std::uint64_t number) {
    findings_ += fmt::format("{}: line {}: the chain breaks\n", printable(seals_), number);
  }

  void verify_file(const Seal& seal) {
    const std::string path = find_file(seal.file, seals_);
    if (path.empty()) {
      findings_ += printable(seal.file) + ": missing\n";
      return;
    }
    try {
      Progress progress({&path, 1});
      for (const LineRange& range : broken_ranges(seal, path, progress)) {
        findings_ += fmt::format("{}: lines {}-{}: does not hold\n", printable(seal.file),
                                 range.first, range.last);
      }
    } catch (const Refusal& refusal) {
      // The other files are compared all the same.
      findings_ += printable(refusal.what()) + '\n';
    }
  }

  const std::string& seals_;
  std::optional<KeptLine> kept_;
  std::optional<std::string> previous_;
  std::uint64_t lines_ = 0;
  std::uint64_t count_ = 0;
  std::size_t first_column_ = 0;  ///< where the first line stops being a seal
  std::string findings_;
};

int run(const VerifyOptions& options) {
  std::optional<KeptLine> kept;
  if (options.kept) {
    kept = parse_kept(*options.kept);
    if (!kept) throw Refusal("--kept: it is no line that audit seal printed");
  }
  Verifier verifier(options, kept);
  read_seals(options.seals, [&](const SealsLine& line) { verifier.take(line); });
  return verifier.finish();
}

}  // namespace

RunCommand add_audit_verify(CommandParser& parser) {
  const auto options = std::make_shared<VerifyOptions>();
  parser.add_option("SEALS", options->seals, "The file of seals").required();
  parser.add_option("--kept", options->kept, "A line that audit seal printed, kept elsewhere")
      .not_empty()
      .type_name("LINE");
  parser.footer(
      "Compares the sealed files with their seals, and the seals with one another. A file is\n"
      "looked for by its sealed name, then with .gz after it; then beside SEALS.\n"
      "Exit codes: 0 everything holds, 1 something does not, 2 the seals cannot be read.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
