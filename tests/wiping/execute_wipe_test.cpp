// What a finished call leaves of its secrets: nothing on the stack, in the optimised build too.
#include <gtest/gtest.h>

#include <cstring>
#include <memory>
#include <string>

#include "approval/signature.h"
#include "unit/tools/execute_fixture.h"
#include "wiping/stack_residue.h"

namespace kova::testing {
namespace {

// The search finds what a call leaves, so that its silence means something.
__attribute__((noinline)) void leave_on_the_stack(const char* text, std::size_t size) {
  char copy[256];
  std::memcpy(copy, text, size);
  __asm__ volatile("" : : "r"(&copy[0]) : "memory");
}

TEST(StackResidue, FindsWhatACallLeaves) {
  const std::string text = "left-on-the-stack-" + std::string(40, '#');
  clear_stack();
  EXPECT_FALSE(stack_holds(text));
  run_deeper([&] { leave_on_the_stack(text.data(), text.size()); });
  EXPECT_TRUE(stack_holds(text));
  clear_stack();
  EXPECT_FALSE(stack_holds(text));
}

class Wiping : public ExecuteTool {
 protected:
  /// Handles a whole request and returns its reply; nothing that this needs is on the stack below.
  std::string run(const std::string& arguments) {
    clear_stack();
    std::string reply;
    run_deeper([&] { reply = call("kova_execute", arguments); });
    return reply;
  }
};

// The client's own spelling may stay; the canonical text may not.
TEST_F(Wiping, NoCanonicalTextStays) {
  const std::string sql = "update log set note_to_be_wiped = 'sesame' where id = 4711";
  const std::string canonical = "UPDATE LOG SET NOTE_TO_BE_WIPED = 'sesame' WHERE ID = 4711;";
  const std::string part = "LOG SET NOTE_TO_BE_WIPED = ";
  bool was_there = false;
  library.on_exec = [&](const char* statement) {
    if (statement == canonical) was_there = is_on_stack(statement);
  };
  const std::string plain = "{\"sql\":\"" + sql + "\"}";
  const auto expect_nothing = [&](const std::string& arguments, std::string_view reply) {
    EXPECT_NE(run(arguments).find(reply), std::string::npos);
    EXPECT_FALSE(stack_holds(part)) << arguments;
  };
  expect_nothing(plain, "\"isError\":false");
  EXPECT_TRUE(was_there);
  was_there = false;
  policy->approval_required = true;
  expect_nothing(plain, "operator approval is required");
  const std::string token = token_for(canonical);
  const std::string approved = "{\"sql\":\"" + sql + "\",\"approval_token\":" + token + "}";
  EXPECT_FALSE(was_there);
  expect_nothing(approved, "\"isError\":false");
  EXPECT_TRUE(was_there);
  expect_nothing(approved, "already used");
  library.answer(canonical, {.code = 0, .status = "database is locked"});
  policy->approval_required = false;
  expect_nothing(plain, "database is locked");
  // Refused by the classifier, at its last check.
  expect_nothing("{\"sql\":\"" + sql + " and drop\"}", "prohibited operation");
}

TEST_F(Wiping, NoTokenStays) {
  policy->approval_required = true;
  const std::string token = token_for("DELETE FROM LOG;");
  const std::string signature = token.substr(token.size() - 65, 64);
  const auto arguments = [&](const std::string& json) {
    return "{\"sql\":\"delete from log\",\"approval_token\":" + json + "}";
  };
  const auto expect_nothing = [&](const std::string& reply, std::string_view words) {
    EXPECT_NE(reply.find(words), std::string::npos) << reply;
    EXPECT_FALSE(stack_holds(signature.substr(0, 16)));
    EXPECT_FALSE(stack_holds(signature.substr(48)));
  };
  std::string forged = token;
  forged[3] = '2';
  expect_nothing(run(arguments(forged)), kFieldsInvalid);
  // Wiped whatever its length: this one was decoded by half.
  expect_nothing(run(arguments(token.substr(0, token.size() - 1) + std::string(200, '.') + "\"")),
                 kTokenInvalid);
  expect_nothing(run(arguments(token)), "\"isError\":false");
  expect_nothing(run(arguments(token)), kUsed);
}

class SigningWipe : public Approvals {
 protected:
  /// Nothing of a signature stays: neither its text, nor the bytes, nor what was signed, nor the
  /// key.
  void expect_nothing(const Draft& draft, std::string_view signature, std::string_view mac) {
    EXPECT_FALSE(stack_holds(signature.substr(0, 16)));
    EXPECT_FALSE(stack_holds(signature.substr(48)));
    EXPECT_FALSE(stack_holds(mac.substr(0, 8)));
    EXPECT_FALSE(stack_holds(mac.substr(24)));
    EXPECT_FALSE(stack_holds("v1|" + draft.expiry));
    EXPECT_FALSE(stack_holds("|Demo_1|desk-7.client_A|"));
    EXPECT_FALSE(stack_holds(kSecret.substr(0, 16)));
    EXPECT_FALSE(stack_holds(kSecret.substr(20)));
  }
  [[nodiscard]] std::string mac_of(const Draft& draft) const {
    return reference_hmac(kSecret, "v1|" + draft.expiry + "|" + draft.nonce + "|" + draft.digest +
                                       "|Demo_1|desk-7.client_A|SHOP");
  }
};

TEST_F(SigningWipe, ASignatureStaysWithItsCallerAlone) {
  const Draft draft;
  const std::string mac = mac_of(draft);
  const auto signature = std::make_unique<char[][kSignatureCapacity]>(1);
  bool signed_it = false;
  clear_stack();
  run_deeper([&] {
    signed_it = approval_sign(*policy, draft.expiry, draft.nonce, draft.digest, signature[0]);
  });
  EXPECT_TRUE(signed_it);
  EXPECT_EQ(signature[0], to_hex(mac));
  expect_nothing(draft, to_hex(mac), mac);
}

TEST_F(SigningWipe, VerifyingLeavesNoSignature) {
  const Draft draft;
  const std::string mac = mac_of(draft);
  const std::string token = token_of(draft);
  std::string forged = token;
  forged.back() = forged.back() == '7' ? '8' : '7';
  for (const std::string& presented : {forged, token, token}) {
    clear_stack();
    run_deeper(
        [&] { static_cast<void>(approval_verify(*policy, kDigest, presented, kNow, message)); });
    expect_nothing(draft, to_hex(mac), mac);
  }
  EXPECT_EQ(message, kUsed);
}

TEST_F(SigningWipe, IssuingLeavesNoSignature) {
  const auto token = std::make_unique<char[]>(kTokenCapacity);
  bool issued = false;
  clear_stack();
  run_deeper([&] {
    issued = approval_issue(*policy, kDigest, kNow, {token.get(), kTokenCapacity}, message);
  });
  // Looked for before anything else is computed from them.
  EXPECT_FALSE(stack_holds("v1|1700000300"));
  EXPECT_FALSE(stack_holds(kSecret.substr(0, 16)));
  EXPECT_FALSE(stack_holds(std::string_view(token.get()).substr(112, 16)));
  EXPECT_FALSE(stack_holds(std::string_view(token.get()).substr(160)));
  EXPECT_TRUE(issued);
}

}  // namespace
}  // namespace kova::testing
