#include "platform/crypto.h"

#include <sodium/crypto_auth_hmacsha256.h>
#include <sodium/crypto_hash_sha256.h>
#include <sys/random.h>

#include "base/secret.h"

namespace kova {

namespace {

static_assert(kSha256Size == crypto_hash_sha256_BYTES);

const unsigned char* bytes_of(std::string_view text) {
  return reinterpret_cast<const unsigned char*>(text.data());
}

}  // namespace

bool sha256_digest(std::string_view data, std::uint8_t (&digest)[kSha256Size]) {
  return crypto_hash_sha256(digest, bytes_of(data), data.size()) == 0;
}

bool hmac_sha256_digest(std::string_view data, std::string_view key,
                        std::uint8_t (&digest)[kSha256Size]) {
  crypto_auth_hmacsha256_state state;
  const bool done = crypto_auth_hmacsha256_init(&state, bytes_of(key), key.size()) == 0 &&
                    crypto_auth_hmacsha256_update(&state, bytes_of(data), data.size()) == 0 &&
                    crypto_auth_hmacsha256_final(&state, digest) == 0;
  wipe(&state, sizeof state);
  return done;
}

bool random_bytes(std::uint8_t* data, std::size_t size) {
  return ::getrandom(data, size, 0) == static_cast<ssize_t>(size);
}

}  // namespace kova
