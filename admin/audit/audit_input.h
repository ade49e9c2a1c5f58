// The files of an audit log: plain or compressed, read in one pass.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <string_view>

#include "admin/audit/progress.h"

namespace kova::admin {

/// Takes a piece of a file's content; the pieces follow one another.
using TakeBytes = std::function<void(std::string_view bytes)>;

/// The name that stands for standard input.
inline constexpr std::string_view kStandardInput = "-";

/// What is known of a file after it was read.
struct ReadFile {
  std::string sha256;    ///< of the file as it lies
  bool is_whole = true;  ///< false for a compressed file that is broken or cut short
};

/// Reads a file, or standard input for "-", once to its end and gives its content to `take`. A file
/// whose name ends in ".gz" or that begins as gzip (RFC 1952) is decompressed. Throws Refusal when
/// it cannot be opened or read, and what `take` throws.
[[nodiscard]] ReadFile read_audit_file(const std::string& name, const TakeBytes& take,
                                       Progress& progress);

/// The same; a compressed file that is broken or cut short is a Refusal, too.
[[nodiscard]] ReadFile read_whole_audit_file(const std::string& name, const TakeBytes& take,
                                             Progress& progress);

}  // namespace kova::admin
