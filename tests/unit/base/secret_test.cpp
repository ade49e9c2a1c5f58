#include "base/secret.h"

#include <gtest/gtest.h>

#include <cstring>
#include <new>
#include <string>

namespace kova {
namespace {

constexpr char kSecret[] = "correct horse battery staple";

TEST(Wipe, OverwritesExactlyTheBytesGiven) {
  char buffer[] = "0123456789";
  wipe(buffer + 2, 5);
  EXPECT_EQ(std::string(buffer, 10), std::string("01\0\0\0\0\0"
                                                 "789",
                                                 10));
  wipe(buffer, 0);
  EXPECT_EQ(buffer[0], '0');
}

// A record that holds a secret and wipes it as its last act. The compiler may drop plain stores to
// an object whose life ends, so the bytes that stay in the storage show whether the wipe is real.
struct SecretRecord {
  SecretRecord() : guard(text) { std::memcpy(text, kSecret, sizeof kSecret); }
  char text[64] = {};
  WipeGuard guard;
};

TEST(WipeGuard, LeavesNothingInTheStorageOfADeadObject) {
  alignas(SecretRecord) unsigned char storage[sizeof(SecretRecord)];
  std::memset(storage, 'x', sizeof storage);
  auto* record = new (storage) SecretRecord;
  ASSERT_STREQ(record->text, kSecret);
  record->~SecretRecord();
  const volatile unsigned char* bytes = storage;
  for (std::size_t i = 0; i < sizeof(SecretRecord::text); ++i) {
    ASSERT_EQ(bytes[i], 0) << "byte " << i;
  }
}

bool leave_early(char (&text)[8], bool early) {
  const WipeGuard guard(text);
  if (early) return false;
  return text[0] != '\0';
}

TEST(WipeGuard, WipesTheWholeArrayOnEveryWayOut) {
  for (const bool early : {true, false}) {
    char text[8];
    std::memset(text, 's', sizeof text);
    EXPECT_EQ(leave_early(text, early), !early);
    EXPECT_EQ(std::string(text, sizeof text), std::string(8, '\0'));
  }
}

}  // namespace
}  // namespace kova
