// The page that an operator reads before a decision.
#pragma once

#include <string>

#include "admin/approve/review.h"
#include "admin/common/times.h"

namespace kova::admin {

struct PageStyle {
  unsigned columns;  ///< of the terminal, 0 when unknown
  bool colour;
};

/// Everything about the write in lines that end in LF: whom it is for, every byte of the canonical
/// statement, the client's spelling where it differs, the digest, the token's lifetime from `now`
/// on, and the warnings. Nothing is cut, and nothing untrusted is unescaped.
[[nodiscard]] std::string review_page(const Review& review, UnixMs now, const PageStyle& style);

}  // namespace kova::admin
