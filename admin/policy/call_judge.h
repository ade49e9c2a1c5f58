// What the server's own code says of a call, without an engine.
#pragma once

#include <cstddef>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "admin/common/json_output.h"
#include "json/json.h"
#include "policy/policy.h"
#include "policy/write_classifier.h"

namespace kova::admin {

enum class Verdict {
  kAllow,    ///< the statement would be sent
  kDeny,     ///< refused
  kApproval  ///< refused until an operator approves it
};

/// "allow", "deny" or "approval".
[[nodiscard]] std::string_view verdict_name(Verdict verdict);
/// The verdict of that name.
[[nodiscard]] std::optional<Verdict> verdict_of(std::string_view name);

struct CallVerdict {
  Verdict verdict = Verdict::kDeny;
  std::string tool;
  std::string message;                ///< the server's, of a call that is not allowed
  std::string check;                  ///< the check that lets it pass or refuses it
  std::optional<std::size_t> offset;  ///< of the word or sign that decided, in the judged text
  std::string type;                   ///< of a write that could be classified; empty otherwise
  std::string table;                  ///< the same
  std::string canonical;              ///< the same
  std::string digest;                 ///< of a write that is not refused
};

/// Judges calls under one policy. No statement is sent, no approval used up, nothing audited. The
/// kill switches are those of the environment.
class CallJudge {
 public:
  explicit CallJudge(const McpPolicy& policy);

  /// One statement, as the call of its tool. Throws Refusal for a text that no client can send.
  [[nodiscard]] CallVerdict statement(std::string_view sql);
  /// A client's message. Throws Refusal when it is no tools/call request.
  [[nodiscard]] CallVerdict message(std::string_view line);
  /// A call of a tool, given its arguments as JSON text.
  [[nodiscard]] CallVerdict call(std::string_view tool, std::string_view arguments);

 private:
  [[nodiscard]] CallVerdict run(const JsonDoc& doc);
  void add_write(const JsonDoc& doc, int arguments, CallVerdict& verdict);

  const McpPolicy& policy_;
  std::unique_ptr<ClassifiedWrite> write_;
};

/// The tool that a statement is for: kova_execute when its first word is INSERT, UPDATE or DELETE,
/// else kova_query.
[[nodiscard]] std::string_view tool_of(std::string_view sql);

/// The verdict as one object; members that do not apply are left out.
[[nodiscard]] Json verdict_json(const CallVerdict& verdict);

}  // namespace kova::admin
