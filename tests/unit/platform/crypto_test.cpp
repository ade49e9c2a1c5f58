// The system's digests against the published vectors, and against the standards written down.
#include "platform/crypto.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "support/guard_page.h"
#include "support/reference_digest.h"

namespace kova::testing {
namespace {

std::string sha256(std::string_view data) {
  std::uint8_t digest[kSha256Size];
  EXPECT_TRUE(sha256_digest(GuardedText(data).view(), digest));
  return to_hex({reinterpret_cast<const char*>(digest), sizeof digest});
}

std::string hmac(std::string_view key, std::string_view data) {
  std::uint8_t digest[kSha256Size];
  EXPECT_TRUE(hmac_sha256_digest(GuardedText(data).view(), GuardedText(key).view(), digest));
  return to_hex({reinterpret_cast<const char*>(digest), sizeof digest});
}

struct DigestVector {
  std::string data;
  const char* digest;
};

// FIPS 180-4 and its examples.
const DigestVector kSha256Vectors[] = {
    {"", "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855"},
    {"abc", "ba7816bf8f01cfea414140de5dae2223b00361a396177a9cb410ff61f20015ad"},
    {"abcdbcdecdefdefgefghfghighijhijkijkljklmklmnlmnomnopnopq",
     "248d6a61d20638b8e5c026930c3e6039a33ce45964ff2167f6ecedd419db06c1"},
    {"abcdefghbcdefghicdefghijdefghijkefghijklfghijklmghijklmnhijklmnoijklmnopjklmnopqklmnopqr"
     "lmnopqrsmnopqrstnopqrstu",
     "cf5b16a778af8380036ce59e7b0492370b249b11e8f07a51afac45037afee9d1"},
    {std::string(1000000, 'a'), "cdc76e5c9914fb9281a1c7e284d73e67f1809a48a497200e046d39ccc7112cd0"},
    {"DELETE FROM T;", "cb062bc682c4948c493b67ac874032ac901d00662755e1038828c6f21e155954"},
};

TEST(Sha256, PublishedVectors) {
  for (const DigestVector& row : kSha256Vectors) {
    EXPECT_EQ(sha256(row.data), row.digest) << row.data.size();
    EXPECT_EQ(to_hex(reference_sha256(row.data)), row.digest) << row.data.size();
  }
}

// Around every block boundary, with bytes of every value.
TEST(Sha256, EveryLength) {
  std::string data;
  for (int length = 0; length <= 300; ++length) {
    ASSERT_EQ(sha256(data), to_hex(reference_sha256(data))) << length;
    data += static_cast<char>(length * 37);
  }
}

struct MacVector {
  std::string key;
  std::string data;
  const char* digest;
};

std::string counting_key() {
  std::string key;
  for (char c = 1; c <= 25; ++c) key += c;
  return key;
}

// RFC 4231, 4.2 to 4.8.
const MacVector kMacVectors[] = {
    {std::string(20, '\x0b'), "Hi There",
     "b0344c61d8db38535ca8afceaf0bf12b881dc200c9833da726e9376c2e32cff7"},
    {"Jefe", "what do ya want for nothing?",
     "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843"},
    {std::string(20, '\xaa'), std::string(50, '\xdd'),
     "773ea91e36800e46854db8ebd09181a72959098b3ef8c122d9635514ced565fe"},
    {counting_key(), std::string(50, '\xcd'),
     "82558a389a443c0ea4cc819899f2083a85f0faa3e578f8077a2e3ff46729665b"},
    // The RFC gives the first 128 bits of this one: a3b61674...2955552b.
    {std::string(20, '\x0c'), "Test With Truncation",
     "a3b6167473100ee06e0c796c2955552bfa6f7c0a6a8aef8b93f860aab0cd20c5"},
    {std::string(131, '\xaa'), "Test Using Larger Than Block-Size Key - Hash Key First",
     "60e431591ee0b67f0d8a26aacbf5b77f8e0bc6213728c5140546040f0ee37f54"},
    {std::string(131, '\xaa'),
     "This is a test using a larger than block-size key and a larger than block-size data. The "
     "key needs to be hashed before being used by the HMAC algorithm.",
     "9b09ffa71b942fcb27635fbcd5b0e944bfdc63644f0713938a7f51535c3a35e2"},
};

TEST(HmacSha256, PublishedVectors) {
  for (const MacVector& row : kMacVectors) {
    EXPECT_EQ(hmac(row.key, row.data), row.digest) << row.data;
    EXPECT_EQ(to_hex(reference_hmac(row.key, row.data)), row.digest) << row.data;
  }
}

TEST(HmacSha256, EveryKeyLength) {
  std::string key;
  for (int length = 0; length <= 200; ++length) {
    ASSERT_EQ(hmac(key, "v1|text"), to_hex(reference_hmac(key, "v1|text"))) << length;
    key += static_cast<char>(length * 91 + 1);
  }
}

TEST(HmacSha256, AKeyOfOver64BytesIsHashedFirst) {
  const std::string block(64, 'k');
  const std::string longer(65, 'k');
  EXPECT_EQ(hmac(longer, "text"), hmac(reference_sha256(longer), "text"));
  EXPECT_NE(hmac(block, "text"), hmac(reference_sha256(block), "text"));
}

TEST(HmacSha256, AnyDataLength) {
  const std::string key(32, 's');
  for (const std::size_t length : {0U, 1U, 55U, 56U, 63U, 64U, 65U, 511U, 32768U}) {
    const std::string data(length, 'd');
    EXPECT_EQ(hmac(key, data), to_hex(reference_hmac(key, data))) << length;
  }
  // With an empty key it is still not the plain digest.
  EXPECT_NE(hmac("", "abc"), sha256("abc"));
}

TEST(RandomBytes, Differ) {
  std::set<std::string> drawn;
  for (int i = 0; i < 200; ++i) {
    GuardedBuffer buffer(16);
    std::memset(buffer.data(), 0, buffer.size());
    ASSERT_TRUE(random_bytes(reinterpret_cast<std::uint8_t*>(buffer.data()), buffer.size()));
    drawn.emplace(buffer.data(), buffer.size());
  }
  EXPECT_EQ(drawn.size(), 200U);
}

// Every byte of the buffer is drawn and none beside it: with 64 draws a byte that stays as it was
// is one that was not written.
TEST(RandomBytes, FillExactlyTheBuffer) {
  std::vector<bool> changed(16);
  for (int i = 0; i < 64; ++i) {
    std::uint8_t bytes[18] = {};
    bytes[17] = 0x5A;
    ASSERT_TRUE(random_bytes(bytes + 1, 16));
    ASSERT_EQ(bytes[0], 0);
    ASSERT_EQ(bytes[17], 0x5A);
    for (std::size_t k = 0; k < 16; ++k) {
      if (bytes[k + 1] != 0) changed[k] = true;
    }
  }
  EXPECT_EQ(std::count(changed.begin(), changed.end(), true), 16);
}

}  // namespace
}  // namespace kova::testing
