// Decompression of gzip files (RFC 1952).
#pragma once

#include <functional>
#include <memory>
#include <string_view>

namespace kova::admin {

/// Decompresses one file that comes in pieces; it may consist of several members.
class Gunzip {
 public:
  Gunzip();
  ~Gunzip();
  Gunzip(const Gunzip&) = delete;
  Gunzip& operator=(const Gunzip&) = delete;

  /// Whether a file that begins with these bytes is compressed.
  [[nodiscard]] static bool is_start(std::string_view bytes);

  /// Takes the next bytes of the file. Once they are wrong it takes no more.
  void add(std::string_view bytes, const std::function<void(std::string_view)>& take);
  /// Whether at least one member has come to its end, none is open and nothing was wrong. Zeros
  /// after the last member are no fault.
  [[nodiscard]] bool is_whole() const;

 private:
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace kova::admin
