#include "admin/policy/schema.h"

#include "admin/common/output.h"

namespace kova::admin {

RunCommand add_policy_schema(CommandParser& parser) {
  parser.footer(
      "Prints the schema, which is valid as draft 2020-12 and as draft-07. What it cannot say,\n"
      "and how an editor is told of it, is in docs/policy.md.");
  return [] {
    print(kPolicySchema);
    return kExitFine;
  };
}

}  // namespace kova::admin
