#include "platform/digest_stream.h"

#include <windows.h>
// After windows.h, whose types it uses.
#include <bcrypt.h>

#include "platform/win32/system_library.h"

namespace kova {

/// The system's library is loaded when the first digest begins.
struct Sha256Stream::State {
  decltype(&::BCryptOpenAlgorithmProvider) open = nullptr;
  decltype(&::BCryptCloseAlgorithmProvider) close = nullptr;
  decltype(&::BCryptCreateHash) create_hash = nullptr;
  decltype(&::BCryptHashData) hash_data = nullptr;
  decltype(&::BCryptFinishHash) finish_hash = nullptr;
  decltype(&::BCryptDestroyHash) destroy_hash = nullptr;
  BCRYPT_ALG_HANDLE provider = nullptr;
  BCRYPT_HASH_HANDLE hash = nullptr;

  [[nodiscard]] bool load() {
    if (provider != nullptr) return true;
    const SystemLibrary library(L"bcrypt.dll");
    return library.find("BCryptOpenAlgorithmProvider", open) &&
           library.find("BCryptCloseAlgorithmProvider", close) &&
           library.find("BCryptCreateHash", create_hash) &&
           library.find("BCryptHashData", hash_data) &&
           library.find("BCryptFinishHash", finish_hash) &&
           library.find("BCryptDestroyHash", destroy_hash) &&
           BCRYPT_SUCCESS(open(&provider, BCRYPT_SHA256_ALGORITHM, nullptr, 0));
  }

  void drop() {
    if (hash != nullptr) destroy_hash(hash);
    hash = nullptr;
  }
};

Sha256Stream::Sha256Stream() : state_(std::make_unique<State>()) {}

Sha256Stream::~Sha256Stream() {
  state_->drop();
  if (state_->provider != nullptr) state_->close(state_->provider, 0);
}

// The system allocates the memory of a hash that is given none.
bool Sha256Stream::begin() {
  if (!state_->load()) return false;
  state_->drop();
  return BCRYPT_SUCCESS(
      state_->create_hash(state_->provider, &state_->hash, nullptr, 0, nullptr, 0, 0));
}

// The interface takes its input without const and does not change it. It counts in 32 bits.
bool Sha256Stream::add(std::string_view data) {
  constexpr std::size_t kPieceLimit = std::size_t{1} << 30;
  while (!data.empty()) {
    const std::size_t size = data.size() < kPieceLimit ? data.size() : kPieceLimit;
    const auto bytes = reinterpret_cast<PUCHAR>(const_cast<char*>(data.data()));
    if (!BCRYPT_SUCCESS(state_->hash_data(state_->hash, bytes, static_cast<ULONG>(size), 0))) {
      return false;
    }
    data.remove_prefix(size);
  }
  return true;
}

bool Sha256Stream::finish(std::uint8_t (&digest)[kSha256Size]) {
  return BCRYPT_SUCCESS(state_->finish_hash(state_->hash, digest, kSha256Size, 0));
}

}  // namespace kova
