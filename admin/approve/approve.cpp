#include "admin/approve/approve.h"

#include <fmt/format.h>

#include <memory>
#include <string>

#include "admin/approve/approval_secret.h"
#include "admin/approve/journal.h"
#include "admin/approve/page.h"
#include "admin/approve/person.h"
#include "admin/approve/questions.h"
#include "admin/approve/review.h"
#include "admin/approve/statement_source.h"
#include "admin/approve/token_output.h"
#include "admin/common/deployment.h"
#include "admin/common/output.h"
#include "admin/common/refusal.h"
#include "admin/common/times.h"
#include "approval/token.h"
#include "base/ascii.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/clock.h"
#include "platform/terminal.h"

namespace kova::admin {

namespace {

struct ApproveOptions {
  std::shared_ptr<std::string> env;
  std::shared_ptr<std::string> journal;
  std::string statement;
  std::string secret_file;
  std::string digest;
  std::string copy_to;
  bool without_statement = false;
  bool show = false;
  bool json = false;
};

/// A token and what the journal keeps of it.
struct IssuedToken {
  char text[kTokenCapacity];
  WipeGuard guard{text};
  std::string nonce;
  std::string expires_at;
};

void issue(const Review& review, std::uint64_t now, IssuedToken& token) {
  char message[kApprovalMessageCapacity] = {};
  if (!approval_issue(*review.policy, review.write->digest, now, token.text, message)) {
    throw Refusal(message[0] != '\0' ? message : "the approval token does not fit");
  }
  TokenPieces pieces;
  if (!approval_split(token.text, pieces)) throw Refusal("the approval token is invalid");
  token.nonce = pieces.nonce;
  token.expires_at = time_text(std::int64_t{1000} * std::stoll(std::string(pieces.expiry)));
}

/// Finds out before anything is shown whether a token can be issued; this one is dropped.
void check_issuing(const Review& review) {
  IssuedToken token;
  issue(review, unix_seconds(), token);
}

Decision decision_on(const Review& review, const ApproveOptions& options, const std::string& person,
                     const std::string& reason) {
  Decision decision;
  decision.timestamp = time_text(now_ms());
  decision.decision = kDeclined;
  decision.person = person;
  decision.host = deciding_host();
  decision.reason = reason;
  decision.policy = review.policy->name;
  decision.client_id = review.policy->client_id;
  decision.database = review.policy->database;
  decision.type = review.write->type;
  decision.table = review.write->table;
  if (!options.without_statement) decision.statement = review.write->canonical;
  decision.digest = review.write->digest;
  return decision;
}

int approve(const Review& review, const std::string& journal, Decision decision,
            TokenOutput& output) {
  IssuedToken token;
  issue(review, unix_seconds(), token);
  decision.decision = kApproved;
  decision.nonce = token.nonce;
  decision.expires_at = token.expires_at;
  char line[kTokenCapacity + 1];
  const WipeGuard guard(line);
  TextOut text(line);
  if (!text.copy(token.text) || !text.append('\n')) throw Refusal("the token does not fit");
  output.reserve(text.length());
  append_decision(journal, decision);
  output.write(text.view());
  return kExitFine;
}

/// Shows the page, asks, and does what the operator decides.
int decide(const ApproveOptions& options, const Review& review, const std::string& person) {
  const std::string journal = journal_path(*options.journal);
  check_last_line(journal);
  const ApprovalSecret secret(options.secret_file);
  check_issuing(review);
  TokenOutput output(options.copy_to);
  Terminal terminal;
  if (!terminal.open()) throw Refusal("there is no terminal to ask on");
  terminal.drop_typed();
  show(terminal, review_page(review, now_ms(),
                             {.columns = terminal.columns(), .colour = colour_is_wanted()}));
  const std::string reason = ask_reason(terminal);
  const bool confirmed = ask_confirmation(terminal);
  Decision decision = decision_on(review, options, person, reason);
  if (confirmed) return approve(review, journal, std::move(decision), output);
  append_decision(journal, decision);
  // The decision stands, whether or not the terminal still shows it.
  static_cast<void>(terminal.write("Declined.\n"));
  return kExitFound;
}

void check_digest(const ApproveOptions& options, const Review& review) {
  if (options.digest.empty() || equal_ignoring_case(options.digest, review.write->digest)) return;
  throw Refusal(
      fmt::format("the digest differs: that of this statement is {}", review.write->digest));
}

int run(const ApproveOptions& options) {
  if (options.json && !options.show) throw Refusal("--json needs --show");
  // Read before the environment file is applied: its variables are the server's and do not say who
  // decides.
  const std::string person = options.show ? std::string() : deciding_person();
  const DeploymentInUse in_use(*options.env);
  const Review review = review_statement(read_statement(options.statement));
  check_digest(options, review);
  if (!options.show) return decide(options, review, person);
  if (options.json) {
    print_review_json(review);
  } else {
    print(review_page(review, now_ms(), {.columns = 0, .colour = stdout_has_colour()}));
  }
  return kExitFine;
}

void add_options(CommandParser& parser, ApproveOptions& options) {
  options.env = add_env_option(parser);
  options.journal = add_journal_option(parser);
  parser
      .add_option("STATEMENT", options.statement,
                  "The statement or the client's message; - reads it")
      .type_name("FILE|-")
      .not_empty()
      .required();
  parser
      .add_option("--secret-file", options.secret_file,
                  "The approval secret, instead of the deployment's")
      .type_name("FILE")
      .not_empty();
  parser.add_option("--digest", options.digest, "The digest that the statement must have")
      .type_name("HEX")
      .not_empty();
  parser
      .add_option("--copy-to", options.copy_to,
                  "A new file for the token, instead of standard output")
      .type_name("FILE")
      .not_empty();
  parser.add_flag("--without-statement", options.without_statement,
                  "Keep the statement out of the journal");
  parser.add_flag("--show", options.show,
                  "Show the statement and end: no terminal, no secret, no token");
  parser.add_flag("--json", options.json, "With --show: one JSON object");
}

}  // namespace

RunCommand add_approve(CommandParser& parser) {
  const auto options = std::make_shared<ApproveOptions>();
  add_options(parser, *options);
  parser.footer(
      "Shows the write on the terminal, asks there for a reason and for \"yes\", and prints the\n"
      "token. Exit codes: 0 token issued, 1 declined, 2 everything else.");
  return [options] { return run(*options); };
}

}  // namespace kova::admin
