#include "admin/doctor/check.h"

#include <algorithm>
#include <utility>

namespace kova::admin {

namespace {

// Several files may have the same fault; it is told once.
void join(std::string& text, std::string_view more) {
  if (more.empty() || text.find(more) != std::string::npos) return;
  if (!text.empty()) text += "; ";
  text += more;
}

}  // namespace

std::string_view status_name(CheckStatus status) {
  switch (status) {
    case CheckStatus::kOk:
      return "ok";
    case CheckStatus::kWarn:
      return "warn";
    case CheckStatus::kFail:
      break;
  }
  return "fail";
}

Findings::Findings(std::string_view name) {
  check_.name = name;
}

Findings::Findings(Check check) : check_(std::move(check)) {}

void Findings::note(std::string_view detail) {
  add(CheckStatus::kOk, detail, {});
}

void Findings::warn(std::string_view detail, std::string_view advice) {
  add(CheckStatus::kWarn, detail, advice);
}

void Findings::fail(std::string_view detail, std::string_view advice) {
  add(CheckStatus::kFail, detail, advice);
}

void Findings::add(CheckStatus status, std::string_view detail, std::string_view advice) {
  check_.status = std::max(check_.status, status);
  join(check_.detail, detail);
  join(check_.advice, advice);
}

}  // namespace kova::admin
