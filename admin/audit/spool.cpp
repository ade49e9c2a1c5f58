#include "admin/audit/spool.h"

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "admin/doctor/probe_name.h"
#include "platform/private_files.h"

namespace kova::admin {

namespace {

constexpr std::size_t kMemoryLimit = 8 * std::size_t{1024} * 1024;

}  // namespace

Spool::~Spool() {
  file_.close();
  std::error_code ignored;
  if (!path_.empty()) std::filesystem::remove(path_, ignored);
}

void Spool::add(std::string_view line) {
  ++count_;
  memory_ += line;
  memory_ += '\n';
  if (memory_.size() >= kMemoryLimit) flush();
}

void Spool::flush() {
  if (path_.empty()) {
    std::error_code error;
    const auto folder = std::filesystem::temp_directory_path(error);
    if (error) throw Refusal("there is no folder for temporary files");
    const std::string path = text_of(folder / path_of(probe_name()));
    if (!write_private_file(path.c_str(), {}, FileUse::kData)) {
      throw Refusal(path + ": the temporary file cannot be written");
    }
    path_ = path_of(path);
    file_.open(path_, std::ios::binary | std::ios::in | std::ios::out);
    // Where an open file may lose its name, none is left behind however this ends.
    std::filesystem::remove(path_, error);
  }
  file_.write(memory_.data(), static_cast<std::streamsize>(memory_.size()));
  if (!file_) throw Refusal(text_of(path_) + ": the temporary file cannot be written");
  memory_.clear();
}

void Spool::for_each(const std::function<void(const std::string& line)>& take) {
  std::string line;
  if (!path_.empty()) {
    file_.flush();
    file_.seekg(0);
    while (std::getline(file_, line)) take(line);
    if (file_.bad()) throw Refusal(text_of(path_) + ": the temporary file cannot be read");
    file_.clear();
    file_.seekp(0, std::ios::end);
  }
  for (std::size_t begin = 0; begin < memory_.size();) {
    const std::size_t end = memory_.find('\n', begin);
    line.assign(memory_, begin, end - begin);
    take(line);
    begin = end + 1;
  }
}

}  // namespace kova::admin
