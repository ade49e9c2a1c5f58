// SHA-256 (FIPS 180-4) and HMAC (RFC 2104) written down as the standards have them: what the
// system's digests are held against.
#pragma once

#include <array>
#include <bit>
#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kova::testing {

/// The digest as 32 raw bytes.
inline std::string reference_sha256(std::string_view data) {
  // The first 32 bits of the fractional parts of the cube roots of the first 64 primes.
  static constexpr std::array<std::uint32_t, 64> kRound = {
      0x428a2f98, 0x71374491, 0xb5c0fbcf, 0xe9b5dba5, 0x3956c25b, 0x59f111f1, 0x923f82a4,
      0xab1c5ed5, 0xd807aa98, 0x12835b01, 0x243185be, 0x550c7dc3, 0x72be5d74, 0x80deb1fe,
      0x9bdc06a7, 0xc19bf174, 0xe49b69c1, 0xefbe4786, 0x0fc19dc6, 0x240ca1cc, 0x2de92c6f,
      0x4a7484aa, 0x5cb0a9dc, 0x76f988da, 0x983e5152, 0xa831c66d, 0xb00327c8, 0xbf597fc7,
      0xc6e00bf3, 0xd5a79147, 0x06ca6351, 0x14292967, 0x27b70a85, 0x2e1b2138, 0x4d2c6dfc,
      0x53380d13, 0x650a7354, 0x766a0abb, 0x81c2c92e, 0x92722c85, 0xa2bfe8a1, 0xa81a664b,
      0xc24b8b70, 0xc76c51a3, 0xd192e819, 0xd6990624, 0xf40e3585, 0x106aa070, 0x19a4c116,
      0x1e376c08, 0x2748774c, 0x34b0bcb5, 0x391c0cb3, 0x4ed8aa4a, 0x5b9cca4f, 0x682e6ff3,
      0x748f82ee, 0x78a5636f, 0x84c87814, 0x8cc70208, 0x90befffa, 0xa4506ceb, 0xbef9a3f7,
      0xc67178f2};
  std::array<std::uint32_t, 8> hash = {0x6a09e667, 0xbb67ae85, 0x3c6ef372, 0xa54ff53a,
                                       0x510e527f, 0x9b05688c, 0x1f83d9ab, 0x5be0cd19};
  std::string padded(data);
  padded += '\x80';
  while (padded.size() % 64 != 56) padded += '\0';
  const auto put = [](std::string& out, std::uint64_t value, int bytes) {
    while (bytes-- > 0) out += static_cast<char>(value >> (8 * bytes) & 0xFF);
  };
  put(padded, 8 * static_cast<std::uint64_t>(data.size()), 8);

  for (std::size_t block = 0; block < padded.size(); block += 64) {
    std::array<std::uint32_t, 64> w{};
    for (std::size_t i = 0; i < 64; ++i)
      w[i / 4] = w[i / 4] << 8 | static_cast<unsigned char>(padded[block + i]);
    for (std::size_t t = 16; t < 64; ++t) {
      const std::uint32_t a = w[t - 15];
      const std::uint32_t b = w[t - 2];
      w[t] = w[t - 16] + w[t - 7] + (std::rotr(a, 7) ^ std::rotr(a, 18) ^ a >> 3) +
             (std::rotr(b, 17) ^ std::rotr(b, 19) ^ b >> 10);
    }
    auto [a, b, c, d, e, f, g, h] = hash;
    for (std::size_t t = 0; t < 64; ++t) {
      const std::uint32_t first = h + (std::rotr(e, 6) ^ std::rotr(e, 11) ^ std::rotr(e, 25)) +
                                  ((e & f) ^ (~e & g)) + kRound[t] + w[t];
      const std::uint32_t second =
          (std::rotr(a, 2) ^ std::rotr(a, 13) ^ std::rotr(a, 22)) + ((a & b) ^ (a & c) ^ (b & c));
      h = g;
      g = f;
      f = e;
      e = d + first;
      d = c;
      c = b;
      b = a;
      a = first + second;
    }
    const std::uint32_t sums[] = {a, b, c, d, e, f, g, h};
    for (std::size_t i = 0; i < hash.size(); ++i) hash[i] += sums[i];
  }
  std::string digest;
  for (const std::uint32_t word : hash) put(digest, word, 4);
  return digest;
}

/// The HMAC-SHA-256 as 32 raw bytes.
inline std::string reference_hmac(std::string_view key, std::string_view data) {
  std::string block = key.size() > 64 ? reference_sha256(key) : std::string(key);
  block.resize(64, '\0');
  std::string inner = block;
  std::string outer = block;
  for (char& c : inner) c = static_cast<char>(c ^ 0x36);
  for (char& c : outer) c = static_cast<char>(c ^ 0x5c);
  return reference_sha256(outer + reference_sha256(inner + std::string(data)));
}

/// Bytes as lower-case hexadecimal text.
inline std::string to_hex(std::string_view bytes) {
  std::string text;
  for (const char c : bytes) {
    text += "0123456789abcdef"[c >> 4 & 0xF];
    text += "0123456789abcdef"[c & 0xF];
  }
  return text;
}

}  // namespace kova::testing
