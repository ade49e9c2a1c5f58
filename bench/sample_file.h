// The samples of a run as a JSON file, for the plots and tables that are made of them.
#pragma once

#include <cstdio>
#include <string>
#include <vector>

#include "rounds.h"

namespace kova_bench {

/// One object: groups of samples, by the subjects' names, and single numbers. Names are plain text
/// without quotes and backslashes.
class SampleFile {
 public:
  SampleFile() = default;
  /// Closes the file; what was not closed by `close` is not to be relied on.
  ~SampleFile();
  SampleFile(const SampleFile&) = delete;
  SampleFile& operator=(const SampleFile&) = delete;

  /// Replaces the file `path`, whose name is UTF-8. Says so on standard error when it cannot.
  [[nodiscard]] bool open(const char* path);
  /// "name": {SUBJECT: [milliseconds by round]}.
  void group(const char* name, const std::vector<Subject>& subjects,
             const std::vector<Samples>& samples);
  void number(const char* name, double value);
  /// Ends the object. False when not everything could be written, which standard error has too.
  [[nodiscard]] bool close();

 private:
  void begin_member(const char* name);

  std::FILE* file_ = nullptr;
  std::string path_;
  bool is_empty_ = true;
};

}  // namespace kova_bench
