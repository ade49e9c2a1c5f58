#include "admin/approve/token_output.h"

#include <filesystem>
#include <utility>

#include "admin/common/paths.h"
#include "admin/common/refusal.h"
#include "platform/terminal.h"

namespace kova::admin {

TokenOutput::TokenOutput(std::string file) : path_(std::move(file)) {
  std::error_code error;
  if (path_.empty()) return;
  if (std::filesystem::symlink_status(path_of(path_), error).type() !=
      std::filesystem::file_type::not_found) {
    throw Refusal(path_ + ": the file for the token exists already or cannot be made");
  }
}

TokenOutput::~TokenOutput() {
  if (!created_ || written_) return;
  file_.close();
  std::error_code error;
  std::filesystem::remove(path_of(path_), error);
}

void TokenOutput::reserve(std::size_t size) {
  if (path_.empty()) return;
  created_ = file_.create(path_.c_str());
  if (!created_ || !file_.store(std::string(size, ' '))) {
    throw Refusal(path_ + ": the file for the token cannot be made");
  }
}

void TokenOutput::write(std::string_view line) {
  written_ = path_.empty() ? write_all_to_stdout(line) : file_.store(line);
  if (!written_) {
    throw Refusal("the token cannot be written: it is journalled as approved and was not shown");
  }
}

}  // namespace kova::admin
