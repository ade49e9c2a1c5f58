// What a check of a deployment says.
#pragma once

#include <string>
#include <string_view>

namespace kova::admin {

enum class CheckStatus { kOk, kWarn, kFail };

/// One line of the report. `advice` is empty exactly where the status is ok.
struct Check {
  std::string name;
  CheckStatus status = CheckStatus::kOk;
  std::string detail;
  std::string advice;
};

/// "ok", "warn" or "fail".
[[nodiscard]] std::string_view status_name(CheckStatus status);

/// Collects what one check finds; the worst finding is its status.
class Findings {
 public:
  explicit Findings(std::string_view name);
  /// Goes on with what a check has found.
  explicit Findings(Check check);

  /// Something worth telling that needs nothing to be done.
  void note(std::string_view detail);
  void warn(std::string_view detail, std::string_view advice);
  void fail(std::string_view detail, std::string_view advice);

  [[nodiscard]] bool is_ok() const { return check_.status == CheckStatus::kOk; }
  /// The check with its findings in one line each for detail and advice.
  [[nodiscard]] Check finish() const { return check_; }

 private:
  void add(CheckStatus status, std::string_view detail, std::string_view advice);

  Check check_;
};

}  // namespace kova::admin
