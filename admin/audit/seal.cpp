#include "admin/audit/seal.h"

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "admin/audit/audit_input.h"
#include "admin/audit/seals.h"
#include "admin/common/output.h"
#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "platform/durable_file.h"

namespace kova::admin {

namespace {

/// How often the seals may grow meanwhile.
constexpr int kTries = 20;

struct SealOptions {
  std::string seals;
  std::vector<std::string> files;
};

/// Where the next seal goes.
struct End {
  std::uint64_t size = 0;
  KeptLine last{};  ///< number 0 when there is none yet
};

End end_of(const std::string& path) {
  std::error_code error;
  if (!std::filesystem::exists(path_of(path), error) && !error) return {};
  End end;
  end.size = read_seals(path, [&](const SealsLine& line) {
    std::size_t column = 0;
    if (!parse_seal(line, column)) throw Refusal(no_seal_text(path, line.number, column));
    end.last = {.number = line.number, .digest = line_digest(line.text)};
  });
  return end;
}

/// The lines of the seals after this end, chained; `last` becomes the last of them.
std::string chained(std::vector<Seal>& seals, KeptLine& last) {
  std::string text;
  for (Seal& seal : seals) {
    if (last.number > 0) seal.previous = last.digest;
    const std::string line = seal_line(seal);
    last = {.number = last.number + 1, .digest = line_digest(line)};
    text += line + '\n';
  }
  return text;
}

// All lines in one record: either every file is sealed or none.
KeptLine append(const std::string& path, std::vector<Seal>& seals) {
  for (int attempt = 0; attempt < kTries; ++attempt) {
    End end = end_of(path);
    const std::string text = chained(seals, end.last);
    if (append_durably_at(path.c_str(), end.size, text)) return end.last;
    if (end_of(path).size == end.size) break;
  }
  throw Refusal(path + ": the seals cannot be written");
}

int run(const SealOptions& options) {
  static_cast<void>(end_of(options.seals));
  std::vector<Seal> seals;
  {
    Progress progress(options.files);
    for (const std::string& file : options.files) {
      if (file == kStandardInput) throw Refusal("standard input has no name to be sealed under");
      seals.push_back(seal_file(file, progress));
    }
  }
  print(kept_text(append(options.seals, seals)) + '\n');
  return kExitFine;
}

}  // namespace

RunCommand add_audit_seal(CommandParser& parser) {
  const auto options = std::make_shared<SealOptions>();
  parser.add_option("--to", options->seals, "The file of seals; made when it is missing")
      .not_empty()
      .required()
      .type_name("SEALS");
  parser.add_option("FILE", options->files, "Rotated audit files in their order, .gz too")
      .required();
  parser.footer(
      "Appends one line a file to SEALS: digests of the file and of every 1,000 lines, its number\n"
      "of lines, its times, and the digest of the line before. Prints one line to keep where the\n"
      "server's account cannot write. A file must keep the name under which it was sealed, but "
      "for\n"
      "a .gz after it. Exit codes: 0 all files are sealed, 2 none is.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
