#include "approval/signature.h"

#include "base/hex.h"
#include "base/secret.h"
#include "base/text.h"
#include "platform/environment.h"

namespace kova {

namespace {

constexpr std::size_t kSecretMinimum = 32;
constexpr std::size_t kSigningTextCapacity = 512;

bool compose(const McpPolicy& policy, std::string_view expiry, std::string_view nonce,
             std::string_view digest, TextOut& out) {
  bool fits = out.copy("v1");
  const std::string_view fields[] = {expiry,           nonce,          digest, policy.name,
                                     policy.client_id, policy.database};
  for (const std::string_view field : fields) {
    fits = fits && out.append('|') && out.append(field);
  }
  return fits;
}

}  // namespace

bool approval_sign(const McpPolicy& policy, std::string_view expiry, std::string_view nonce,
                   std::string_view digest, char (&signature)[kSignatureCapacity]) {
  const EnvironmentValue secret("KOVA_MCP_APPROVAL_SECRET");
  if (secret.view().size() < kSecretMinimum) return false;
  char text[kSigningTextCapacity];
  const WipeGuard text_guard(text);
  TextOut signing_text(text);
  std::uint8_t mac[kSha256Size];
  const WipeGuard mac_guard(mac);
  if (!compose(policy, expiry, nonce, digest, signing_text) ||
      !hmac_sha256_digest(signing_text.view(), secret.view(), mac)) {
    return false;
  }
  write_hex(mac, signature);
  return true;
}

}  // namespace kova
