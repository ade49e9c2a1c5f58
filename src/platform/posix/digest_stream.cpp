#include "platform/digest_stream.h"

// The functions for one algorithm alone: what is linked of the library stays small.
#define OPENSSL_API_COMPAT 0x10100000L
#include <openssl/sha.h>

namespace kova {

struct Sha256Stream::State {
  SHA256_CTX hash;
};

Sha256Stream::Sha256Stream() : state_(std::make_unique<State>()) {}

Sha256Stream::~Sha256Stream() = default;

bool Sha256Stream::begin() {
  return SHA256_Init(&state_->hash) == 1;
}

bool Sha256Stream::add(std::string_view data) {
  return SHA256_Update(&state_->hash, data.data(), data.size()) == 1;
}

bool Sha256Stream::finish(std::uint8_t (&digest)[kSha256Size]) {
  return SHA256_Final(digest, &state_->hash) == 1;
}

}  // namespace kova
