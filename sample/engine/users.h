// Who may log in.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace kova::sample {

/// The users file: one "USER:PASSWORD" a line. Empty lines and lines that begin with "#" are
/// skipped. A user is 1 to 63 bytes without ":", "," and ";"; a password is everything after the
/// first colon, 1 to 255 bytes, blanks included.
class Users {
 public:
  /// Throws BadInput, with the number of the line that is malformed.
  explicit Users(const std::string& path);
  /// Takes as long for a wrong password as for an unknown user.
  [[nodiscard]] bool admits(std::string_view user, std::string_view password) const;

 private:
  struct User {
    std::string name;
    std::string password;
  };

  [[nodiscard]] bool add(std::string_view line);

  std::vector<User> users_;
};

}  // namespace kova::sample
