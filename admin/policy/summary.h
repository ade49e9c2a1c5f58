// A policy in plain sentences.
#pragma once

#include <string>
#include <vector>

#include "policy/policy.h"

namespace kova::admin {

struct SummarySection {
  std::string title;
  std::vector<std::string> sentences;
};

/// What a policy means for its client. The kill switches of the environment count.
[[nodiscard]] std::vector<SummarySection> summary_of(const McpPolicy& policy);

enum class SummaryForm { kText, kMarkdown };

/// The sections for a reader. Names in a valid policy are plain ASCII.
[[nodiscard]] std::string summary_text(const McpPolicy& policy, SummaryForm form);

}  // namespace kova::admin
