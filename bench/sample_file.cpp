#include "sample_file.h"

#include <cstddef>

namespace kova_bench {

SampleFile::~SampleFile() {
  if (file_ != nullptr) std::fclose(file_);
}

bool SampleFile::open(const char* path) {
  path_ = path;
  file_ = std::fopen(path, "wb");
  if (file_ != nullptr) return std::fputs("{", file_) >= 0;
  std::fprintf(stderr, "%s cannot be written\n", path);
  return false;
}

void SampleFile::begin_member(const char* name) {
  std::fprintf(file_, "%s\n\"%s\": ", is_empty_ ? "" : ",", name);
  is_empty_ = false;
}

void SampleFile::group(const char* name, const std::vector<Subject>& subjects,
                       const std::vector<Samples>& samples) {
  begin_member(name);
  for (std::size_t i = 0; i < subjects.size(); ++i) {
    std::fprintf(file_, "%s\n \"%s\": [", i == 0 ? "{" : "],", subjects[i].name.c_str());
    const char* separator = "";
    for (const double milliseconds : samples[i]) {
      std::fprintf(file_, "%s%.6g", separator, milliseconds);
      separator = ",";
    }
  }
  std::fputs("]}", file_);
}

void SampleFile::number(const char* name, double value) {
  begin_member(name);
  std::fprintf(file_, "%.6g", value);
}

bool SampleFile::close() {
  std::fputs("\n}\n", file_);
  const bool is_written = std::ferror(file_) == 0;
  const bool is_closed = std::fclose(file_) == 0;
  file_ = nullptr;
  if (!is_written || !is_closed) std::fprintf(stderr, "%s is not complete\n", path_.c_str());
  return is_written && is_closed;
}

}  // namespace kova_bench
