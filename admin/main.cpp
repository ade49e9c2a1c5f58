// kova-admin: the table of commands, and the one place where errors end.
#include <exception>

#include "admin/approvals/clean.h"
#include "admin/approvals/list.h"
#include "admin/approve/approve.h"
#include "admin/audit/export.h"
#include "admin/audit/report.h"
#include "admin/audit/seal.h"
#include "admin/audit/tail.h"
#include "admin/audit/verify.h"
#include "admin/bundle/bundle.h"
#include "admin/common/command_line.h"
#include "admin/common/output.h"
#include "admin/doctor/doctor.h"
#include "admin/init/init.h"
#include "admin/policy/check.h"
#include "admin/policy/diff.h"
#include "admin/policy/explain.h"
#include "admin/policy/lint.h"
#include "admin/policy/schema.h"
#include "admin/policy/test.h"
#include "admin/serve/serve.h"
#include "admin/service/service.h"
#include "platform/console.h"

namespace {

/// A command of two words stands below a parent of its first word.
constexpr kova::admin::Command kCommands[] = {
    {.name = "approve", .summary = "Read a write and sign it", .add = kova::admin::add_approve},
    {.name = "approvals list",
     .summary = "Show what has become of each approval",
     .add = kova::admin::add_approvals_list},
    {.name = "approvals clean",
     .summary = "Remove the markers of tokens that expired long ago",
     .add = kova::admin::add_approvals_clean},
    {.name = "audit report",
     .summary = "Say what happened, from the audit files",
     .add = kova::admin::add_audit_report},
    {.name = "audit tail",
     .summary = "Follow an audit file, one readable line a record",
     .add = kova::admin::add_audit_tail},
    {.name = "audit export",
     .summary = "Write records in a field model of other systems",
     .add = kova::admin::add_audit_export},
    {.name = "audit seal",
     .summary = "Write down what rotated audit files are",
     .add = kova::admin::add_audit_seal},
    {.name = "audit verify",
     .summary = "Compare sealed audit files with their seals",
     .add = kova::admin::add_audit_verify},
    {.name = "bundle",
     .summary = "Make a bundle for the clients of a deployment that only reads",
     .add = kova::admin::add_bundle},
    {.name = "doctor",
     .summary = "Find what is wrong with a deployment",
     .add = kova::admin::add_doctor},
    {.name = "init",
     .summary = "Write a new deployment into a folder",
     .add = kova::admin::add_init},
    {.name = "policy check",
     .summary = "Judge a policy file as the server's loader does",
     .add = kova::admin::add_policy_check},
    {.name = "policy diff",
     .summary = "Show what a new policy widens and narrows",
     .add = kova::admin::add_policy_diff},
    {.name = "policy explain",
     .summary = "Show what a policy means, or what it makes of a call",
     .add = kova::admin::add_policy_explain},
    {.name = "policy lint",
     .summary = "Find mistakes that look harmless",
     .add = kova::admin::add_policy_lint},
    {.name = "policy schema",
     .summary = "Print the JSON Schema of a policy file",
     .add = kova::admin::add_policy_schema},
    {.name = "policy test",
     .summary = "Hold a policy against a table of cases",
     .add = kova::admin::add_policy_test},
    {.name = "serve",
     .summary = "Start the server with the environment of a file",
     .add = kova::admin::add_serve},
    {.name = "service install",
     .summary = "Install the HTTP listener as a service of Windows",
     .add = kova::admin::add_service_install},
    {.name = "service start",
     .summary = "Start the service",
     .add = kova::admin::add_service_start},
    {.name = "service stop",
     .summary = "Stop the service and all of its processes",
     .add = kova::admin::add_service_stop},
    {.name = "service remove",
     .summary = "Remove the service",
     .add = kova::admin::add_service_remove},
    {.name = "service run",
     .summary = "Be the service's process",
     .add = kova::admin::add_service_run},
};

}  // namespace

int main(int count, char** arguments) {
  kova::prepare_standard_streams();
  try {
    return kova::admin::run_command_line(kCommands, count, arguments);
  } catch (const std::exception& error) {
    kova::admin::print_error(error.what());
    return kova::admin::kExitCannot;
  }
}
