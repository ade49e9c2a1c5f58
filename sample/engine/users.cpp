#include "engine/users.h"

#include <algorithm>
#include <cstddef>
#include <cstdio>
#include <memory>

#include "base/secret.h"
#include "engine/options.h"

namespace kova::sample {

namespace {

constexpr std::size_t kUserNameLimit = 63;
constexpr std::size_t kPasswordLimit = 255;
constexpr std::size_t kFileLimit = 1 << 20;

struct FileCloser {
  void operator()(std::FILE* file) const { std::fclose(file); }
};

std::string read_file(const std::string& path) {
  const std::unique_ptr<std::FILE, FileCloser> file(std::fopen(path.c_str(), "rbe"));
  std::string text(kFileLimit + 1, '\0');
  if (file != nullptr) text.resize(std::fread(text.data(), 1, text.size(), file.get()));
  if (file == nullptr || std::ferror(file.get()) != 0 || text.size() > kFileLimit) {
    throw BadInput("cannot read the users file " + path);
  }
  return text;
}

}  // namespace

bool Users::add(std::string_view line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string_view::npos) return false;
  const std::string_view name = line.substr(0, colon);
  const std::string_view password = line.substr(colon + 1);
  if (name.empty() || name.size() > kUserNameLimit) return false;
  if (name.find_first_of(",;") != std::string_view::npos) return false;
  if (password.empty() || password.size() > kPasswordLimit) return false;
  const auto same_name = [&](const User& user) { return user.name == name; };
  if (std::any_of(users_.begin(), users_.end(), same_name)) return false;
  users_.push_back({std::string(name), std::string(password)});
  return true;
}

Users::Users(const std::string& path) {
  const std::string text = read_file(path);
  std::string_view rest = text;
  for (int number = 1; !rest.empty(); ++number) {
    const std::size_t end = std::min(rest.find('\n'), rest.size());
    const std::string_view line = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    if (line.empty() || line.starts_with('#') || add(line)) continue;
    throw BadInput("users file " + path + ", line " + std::to_string(number) +
                   ": not USER:PASSWORD, or a user given twice");
  }
}

bool Users::admits(std::string_view user, std::string_view password) const {
  const auto same_name = [&](const User& known) { return known.name == user; };
  const auto found = std::find_if(users_.begin(), users_.end(), same_name);
  const bool known = found != users_.end();
  const bool matches = equal_constant_time(known ? found->password : std::string_view(), password);
  return known && matches;
}

}  // namespace kova::sample
