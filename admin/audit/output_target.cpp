#include "admin/audit/output_target.h"

#include "admin/common/output.h"
#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "admin/doctor/probe_name.h"
#include "platform/private_files.h"

namespace kova::admin {

namespace {

constexpr std::size_t kBufferLimit = 256 * std::size_t{1024};

void check_path(const std::string& path, std::span<const std::string> inputs) {
  std::error_code error;
  const auto place = path_of(path);
  const auto status = std::filesystem::status(place, error);
  if (!std::filesystem::exists(status)) return;
  if (!std::filesystem::is_regular_file(status)) throw Refusal(path + ": it is no regular file");
  for (const std::string& input : inputs) {
    if (std::filesystem::equivalent(place, path_of(input), error)) {
      throw Refusal(path + ": the output is one of the inputs");
    }
  }
}

}  // namespace

OutputTarget::OutputTarget(const std::string& path, std::span<const std::string> inputs)
    : path_(path) {
  if (path_.empty()) return;
  check_path(path_, inputs);
  const std::string partial = text_of(path_of(path_).parent_path() / path_of(probe_name()));
  if (!write_private_file(partial.c_str(), {}, FileUse::kData)) {
    throw Refusal(path_ + ": the file cannot be written");
  }
  partial_ = path_of(partial);
  file_.open(partial_, std::ios::binary);
}

OutputTarget::~OutputTarget() {
  file_.close();
  std::error_code ignored;
  if (!partial_.empty()) std::filesystem::remove(partial_, ignored);
}

void OutputTarget::write(std::string_view text) {
  buffer_ += text;
  if (buffer_.size() >= kBufferLimit) flush();
}

void OutputTarget::flush() {
  if (path_.empty()) {
    print(buffer_);
  } else {
    file_.write(buffer_.data(), static_cast<std::streamsize>(buffer_.size()));
    if (!file_) throw Refusal(path_ + ": the file cannot be written");
  }
  buffer_.clear();
}

void OutputTarget::finish() {
  flush();
  if (path_.empty()) return;
  file_.close();
  std::error_code error;
  if (file_) std::filesystem::rename(partial_, path_of(path_), error);
  if (!file_ || error) throw Refusal(path_ + ": the file cannot be written");
  partial_.clear();
}

}  // namespace kova::admin
