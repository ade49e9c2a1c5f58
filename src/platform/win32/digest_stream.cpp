#include "platform/digest_stream.h"

#include "platform/win32/cng.h"

namespace kova {

/// The system's library is loaded when the first digest begins.
struct Sha256Stream::State {
  Cng cng{};
  BCRYPT_ALG_HANDLE provider = nullptr;
  BCRYPT_HASH_HANDLE hash = nullptr;

  [[nodiscard]] bool load() {
    if (provider != nullptr) return true;
    return cng.load() && BCRYPT_SUCCESS(cng.open(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
  }

  void drop() {
    if (hash != nullptr) cng.destroy_hash(hash);
    hash = nullptr;
  }
};

Sha256Stream::Sha256Stream() : state_(std::make_unique<State>()) {}

Sha256Stream::~Sha256Stream() {
  state_->drop();
  if (state_->provider != nullptr) state_->cng.close(state_->provider, 0);
}

// The system allocates the memory of a hash that is given none.
bool Sha256Stream::begin() {
  if (!state_->load()) return false;
  state_->drop();
  return BCRYPT_SUCCESS(
      state_->cng.create_hash(state_->provider, &state_->hash, nullptr, 0, nullptr, 0, 0));
}

// The interface takes its input without const and does not change it. It counts in 32 bits.
bool Sha256Stream::add(std::string_view data) {
  constexpr std::size_t kPieceLimit = std::size_t{1} << 30;
  while (!data.empty()) {
    const std::size_t size = data.size() < kPieceLimit ? data.size() : kPieceLimit;
    const auto bytes = reinterpret_cast<PUCHAR>(const_cast<char*>(data.data()));
    if (!BCRYPT_SUCCESS(state_->cng.hash_data(state_->hash, bytes, static_cast<ULONG>(size), 0))) {
      return false;
    }
    data.remove_prefix(size);
  }
  return true;
}

bool Sha256Stream::finish(std::uint8_t (&digest)[kSha256Size]) {
  return BCRYPT_SUCCESS(state_->cng.finish_hash(state_->hash, digest, kSha256Size, 0));
}

}  // namespace kova
