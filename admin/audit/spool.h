// A list of texts of any length, in bounded memory.
#pragma once

#include <cstdint>
#include <filesystem>
#include <fstream>
#include <functional>
#include <string>
#include <string_view>

namespace kova::admin {

/// Keeps lines in memory, and in a temporary file of this account once they are many.
class Spool {
 public:
  Spool() = default;
  ~Spool();
  Spool(const Spool&) = delete;
  Spool& operator=(const Spool&) = delete;

  /// Adds a text without line ends. Throws Refusal when the temporary file cannot be written.
  void add(std::string_view line);
  [[nodiscard]] std::uint64_t size() const { return count_; }
  /// Gives all lines in their order; not to be added to afterwards.
  void for_each(const std::function<void(const std::string& line)>& take);

 private:
  void flush();

  std::string memory_;
  std::uint64_t count_ = 0;
  std::filesystem::path path_;
  std::fstream file_;
};

}  // namespace kova::admin
