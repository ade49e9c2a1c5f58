// Issuing when the system has no random bytes to give.
#include <gtest/gtest.h>
#include <sys/random.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>

#include "approval/token.h"
#include "platform/crypto.h"
#include "unit/approval/approval_fixture.h"

namespace {

// The most bytes that one call gives; -1 refuses it.
constexpr ssize_t kAll = 1 << 20;
ssize_t most = kAll;

}  // namespace

// Stands before the C library's own in this program.
extern "C" ssize_t getrandom(void* buffer, size_t length, unsigned int flags) {
  if (most < 0) {
    errno = ENOSYS;
    return -1;
  }
  return syscall(SYS_getrandom, buffer, std::min(length, static_cast<size_t>(most)), flags);
}

namespace kova::testing {
namespace {

class Nonce : public Approvals {
 protected:
  ~Nonce() override { most = kAll; }
  void expect_none(std::string_view digest, std::string_view words) {
    char token[kTokenCapacity];
    TextOut(message).copy_cut(kUntouched);
    EXPECT_FALSE(approval_issue(*policy, digest, kNow, token, message));
    EXPECT_EQ(std::string_view(message), words);
  }
};

TEST_F(Nonce, WithoutRandomBytesThereIsNoToken) {
  most = -1;
  expect_none(kDigest, "approval nonce generation failed");
  // Some of the bytes are not enough.
  for (const ssize_t some : {0, 1, 15}) {
    most = some;
    expect_none(kDigest, "approval nonce generation failed");
  }
  most = 16;
  char token[kTokenCapacity];
  EXPECT_TRUE(approval_issue(*policy, kDigest, kNow, token, message));
}

// Behind the policy and the digest, before the secret.
TEST_F(Nonce, TheChecksStandInOrder) {
  most = -1;
  secret_variable.unset();
  expect_none(kDigest.substr(1), kBadRequest);
  expect_none(kDigest, "approval nonce generation failed");
  most = kAll;
  expect_none(kDigest, kCannotSign);
}

TEST_F(Nonce, RandomBytesFailWithTheSystem) {
  std::uint8_t bytes[16];
  most = -1;
  EXPECT_FALSE(random_bytes(bytes, sizeof bytes));
  most = kAll;
  EXPECT_TRUE(random_bytes(bytes, sizeof bytes));
}

}  // namespace
}  // namespace kova::testing
