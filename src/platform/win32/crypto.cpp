#include "platform/crypto.h"

#include "base/secret.h"
#include "platform/win32/cng.h"

namespace kova {

namespace {

/// One digest in progress; released in every case.
class Hash {
 public:
  explicit Hash(const Cng& cng) : cng_(cng) {}
  ~Hash() {
    if (hash_ != nullptr) cng_.destroy_hash(hash_);
    if (object_ != nullptr) {
      wipe(object_, object_size_);
      ::HeapFree(::GetProcessHeap(), 0, object_);
    }
    if (provider_ != nullptr) cng_.close(provider_, 0);
  }
  Hash(const Hash&) = delete;
  Hash& operator=(const Hash&) = delete;

  /// `key` is null for the plain digest.
  [[nodiscard]] bool run(std::string_view data, const std::string_view* key,
                         std::uint8_t (&digest)[kSha256Size]) {
    const ULONG flags = key != nullptr ? BCRYPT_ALG_HANDLE_HMAC_FLAG : 0;
    return ok(cng_.open(&provider_, BCRYPT_SHA256_ALGORITHM, nullptr, flags)) &&
           property(BCRYPT_OBJECT_LENGTH, object_size_) &&
           property(BCRYPT_HASH_LENGTH, digest_size_) && digest_size_ == kSha256Size &&
           allocate_object() &&
           ok(cng_.create_hash(provider_, &hash_, object_, object_size_, bytes_of(key),
                               key != nullptr ? static_cast<ULONG>(key->size()) : 0, 0)) &&
           ok(cng_.hash_data(hash_, bytes_of(&data), static_cast<ULONG>(data.size()), 0)) &&
           ok(cng_.finish_hash(hash_, digest, kSha256Size, 0));
  }

 private:
  [[nodiscard]] static bool ok(NTSTATUS status) { return BCRYPT_SUCCESS(status); }

  // The interface takes its inputs without const and does not change them.
  [[nodiscard]] static PUCHAR bytes_of(const std::string_view* text) {
    return text != nullptr ? reinterpret_cast<PUCHAR>(const_cast<char*>(text->data())) : nullptr;
  }

  [[nodiscard]] bool property(const wchar_t* name, DWORD& value) {
    ULONG written = 0;
    return ok(cng_.get_property(provider_, name, reinterpret_cast<PUCHAR>(&value), sizeof value,
                                &written, 0));
  }

  [[nodiscard]] bool allocate_object() {
    object_ = static_cast<PUCHAR>(::HeapAlloc(::GetProcessHeap(), 0, object_size_));
    return object_ != nullptr;
  }

  const Cng& cng_;
  BCRYPT_ALG_HANDLE provider_ = nullptr;
  BCRYPT_HASH_HANDLE hash_ = nullptr;
  PUCHAR object_ = nullptr;
  DWORD object_size_ = 0;
  DWORD digest_size_ = 0;
};

bool digest_of(std::string_view data, const std::string_view* key,
               std::uint8_t (&digest)[kSha256Size]) {
  Cng cng{};
  return cng.load() && Hash(cng).run(data, key, digest);
}

}  // namespace

bool sha256_digest(std::string_view data, std::uint8_t (&digest)[kSha256Size]) {
  return digest_of(data, nullptr, digest);
}

bool hmac_sha256_digest(std::string_view data, std::string_view key,
                        std::uint8_t (&digest)[kSha256Size]) {
  return digest_of(data, &key, digest);
}

bool random_bytes(std::uint8_t* data, std::size_t size) {
  Cng cng{};
  return cng.load() && BCRYPT_SUCCESS(cng.random(nullptr, data, static_cast<ULONG>(size),
                                                 BCRYPT_USE_SYSTEM_PREFERRED_RNG));
}

}  // namespace kova
